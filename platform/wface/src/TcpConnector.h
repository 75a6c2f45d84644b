// TcpConnector.h - connects by TCP.
#pragma once

#include <chrono>
#include <optional>

#include "TcpSocket.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/LoopObject.h"
#include "wface/CAWConnectionManager.h"

namespace wface {

class TcpConnector final : public keelbase::internal::LoopObject<IAWConnector>,
                           private keelbase::internal::Watcher {
 public:
  explicit TcpConnector(keelbase::internal::EventLoop& loop) : LoopObject(loop), timer_(loop) {}
  ~TcpConnector() override { Unwatch(); }

  keelbase::AWResult AsyncConnect(IAWAcceptorConnectorSink* sink, const keelbase::CAWInetAddr& peer,
                                  const keelbase::CAWTimeValue* timeout,
                                  const keelbase::CAWInetAddr* local) override;
  keelbase::AWResult CancelConnect() override;

 private:
  void OnReady(std::uint32_t events) override;

  void Begin();
  int StartConnect();
  int AwaitConnect();
  void Unwatch();
  void Finish(int error);

  IAWAcceptorConnectorSink* sink_ = nullptr;  // null: no connect under way
  keelbase::CAWInetAddr peer_;
  std::optional<keelbase::CAWInetAddr> local_;
  std::optional<keelbase::internal::Clock::Point> deadline_;
  keelbase::internal::FileDescriptor socket_;
  TcpEnds ends_;  // once it is connected
  bool watched_ = false;
  keelbase::internal::Timer timer_;  // begins the connect, then ends it when it is late
};

}  // namespace wface
