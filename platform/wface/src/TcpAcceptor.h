// TcpAcceptor.h - listens by TCP.
#pragma once

#include <optional>

#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/StreamListener.h"
#include "wface/CAWConnectionManager.h"

namespace wface {

class TcpAcceptor final : public keelbase::internal::LoopObject<IAWAcceptor> {
 public:
  explicit TcpAcceptor(keelbase::internal::EventLoop& loop) : LoopObject(loop) {}
  ~TcpAcceptor() override = default;

  keelbase::AWResult StartListen(IAWAcceptorConnectorSink* sink, const keelbase::CAWInetAddr& addr,
                                 int backlog) override;
  keelbase::AWResult StopListen() override;
  keelbase::CAWInetAddr GetLocalAddr() const override;

 private:
  int Listen(const keelbase::CAWInetAddr& addr, int backlog);
  void OnAccepted(keelbase::internal::FileDescriptor socket);

  IAWAcceptorConnectorSink* sink_ = nullptr;
  keelbase::CAWInetAddr local_;
  std::optional<keelbase::internal::StreamListener> listener_;  // none: not listening
};

}  // namespace wface
