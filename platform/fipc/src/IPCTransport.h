// IPCTransport.h - a local IPC connection on a stream socket.
#pragma once

#include "fipc/CAWIPCTransport.h"
#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/StreamSocket.h"

namespace fipc {

class IPCTransport final : public keelbase::internal::LoopObject<IAWIPCTransport>,
                           private keelbase::internal::StreamSocketSink {
 public:
  IPCTransport(keelbase::internal::EventLoop& loop, keelbase::internal::FileDescriptor socket,
               keelbase::CAWIPCAddr local, keelbase::CAWIPCAddr peer,
               const keelbase::CAWPeerCredentials& credentials);
  ~IPCTransport() override;

  keelbase::AWResult OpenWithSink(IAWIPCTransportSink* sink) override;
  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data, CAWIPCTransportParameter*) override {
    return socket_->Send(data);
  }
  keelbase::AWResult Disconnect(long reason) override;
  keelbase::AWResult GetOption(int code, void* value) override;
  keelbase::AWResult SetOption(int code, void* value) override;

 private:
  void OnBytes(keelbase::CAWMessageBlock& block) override;
  void OnRoom() override;
  void OnEnd(long reason) override;

  const keelbase::CAWAutoPtr<keelbase::internal::StreamSocket> socket_;
  const keelbase::CAWIPCAddr local_;
  const keelbase::CAWIPCAddr peer_;
  const keelbase::CAWPeerCredentials credentials_;
  IAWIPCTransportSink* sink_ = nullptr;
};

}  // namespace fipc
