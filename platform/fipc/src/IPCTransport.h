// IPCTransport.h - a local IPC connection on a stream socket.
#pragma once

#include "fipc/CAWIPCTransport.h"
#include "keelbase/internal/EngineTransport.h"

namespace fipc {

class IPCTransport final
    : public keelbase::internal::EngineTransport<IAWIPCTransport, IAWIPCTransportSink,
                                                 CAWIPCTransportParameter,
                                                 keelbase::internal::StreamSocket> {
 public:
  IPCTransport(keelbase::internal::EventLoop& loop, keelbase::internal::FileDescriptor socket,
               keelbase::CAWIPCAddr local, keelbase::CAWIPCAddr peer,
               const keelbase::CAWPeerCredentials& credentials);

  keelbase::AWResult GetOption(int code, void* value) override;
  keelbase::AWResult SetOption(int code, void* value) override;

 private:
  const keelbase::CAWIPCAddr local_;
  const keelbase::CAWIPCAddr peer_;
  const keelbase::CAWPeerCredentials credentials_;
};

}  // namespace fipc
