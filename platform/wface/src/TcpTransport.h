// TcpTransport.h - a TCP connection on a stream socket.
#pragma once

#include "TcpSocket.h"
#include "keelbase/internal/EngineTransport.h"
#include "wface/CAWTransport.h"

namespace wface {

class TcpTransport final
    : public keelbase::internal::EngineTransport<
          IAWTransport, IAWTransportSink, CAWTransportParameter, keelbase::internal::StreamSocket> {
 public:
  TcpTransport(keelbase::internal::EventLoop& loop, keelbase::internal::FileDescriptor socket,
               const TcpEnds& ends);

  keelbase::AWResult GetOption(int code, void* value) override;
  keelbase::AWResult SetOption(int code, void* value) override;

 private:
  const TcpEnds ends_;
};

// Makes a transport of a connected socket. 0; ENOMEM, and `out` is null.
int MakeTransport(keelbase::internal::EventLoop& loop, keelbase::internal::FileDescriptor socket,
                  const TcpEnds& ends, keelbase::CAWAutoPtr<IAWTransport>& out);

}  // namespace wface
