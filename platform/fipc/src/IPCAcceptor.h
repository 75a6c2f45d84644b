// IPCAcceptor.h - listens at an endpoint file.
#pragma once

#include "fipc/CAWIPCManager.h"
#include "keelbase/internal/EndpointListener.h"
#include "keelbase/internal/LoopObject.h"

namespace fipc {

using keelbase::internal::FileDescriptor;

class IPCAcceptor final : public keelbase::internal::LoopObject<IAWIPCAcceptor> {
 public:
  explicit IPCAcceptor(keelbase::internal::EventLoop& loop);
  ~IPCAcceptor() override = default;

  keelbase::AWResult SetOption(int code, void* value) override;
  keelbase::AWResult StartListen(IAWIPCAcceptorConnectorSink* sink,
                                 const keelbase::CAWIPCAddr& addr) override;
  keelbase::AWResult StopListen() override;

 private:
  void OnAccepted(FileDescriptor socket, const keelbase::CAWPeerCredentials& credentials);
  void OnFailed(int error);
  keelbase::CAWIPCAddr PeerAddress(int socket) const;

  IAWIPCAcceptorConnectorSink* sink_ = nullptr;  // null: not listening
  keelbase::CAWIPCAddr address_;
  keelbase::internal::EndpointListener listener_;
};

}  // namespace fipc
