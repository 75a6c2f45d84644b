// IPCAcceptor.h - listens at an endpoint file.
#pragma once

#include <optional>

#include "EndpointFile.h"
#include "fipc/CAWIPCManager.h"
#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/StreamListener.h"

namespace fipc {

class IPCAcceptor final : public keelbase::internal::LoopObject<IAWIPCAcceptor> {
 public:
  explicit IPCAcceptor(keelbase::internal::EventLoop& loop) : LoopObject(loop), retry_(loop) {}
  ~IPCAcceptor() override = default;

  keelbase::AWResult SetOption(int code, void* value) override;
  keelbase::AWResult StartListen(IAWIPCAcceptorConnectorSink* sink,
                                 const keelbase::CAWIPCAddr& addr) override;
  keelbase::AWResult StopListen() override;

 private:
  void OnLastReference() override { StopListen(); }
  int Start();
  int Listen();
  void Retry();
  void Stop();
  void OnAccepted(FileDescriptor socket);
  keelbase::CAWIPCAddr PeerAddress(int socket) const;

  IAWIPCAcceptorConnectorSink* sink_ = nullptr;  // null: not listening
  keelbase::CAWIPCAddr address_;
  bool allowAnyUser_ = false;
  EndpointFile file_;
  std::optional<keelbase::internal::StreamListener> listener_;
  keelbase::internal::Timer retry_;  // while another process holds the directory
};

}  // namespace fipc
