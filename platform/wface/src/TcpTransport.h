// TcpTransport.h - a TCP connection on a stream socket.
#pragma once

#include "keelbase/internal/EngineTransport.h"
#include "wface/CAWTransport.h"

namespace wface {

class TcpTransport final
    : public keelbase::internal::EngineTransport<
          IAWTransport, IAWTransportSink, CAWTransportParameter, keelbase::internal::StreamSocket> {
 public:
  TcpTransport(keelbase::internal::EventLoop& loop, keelbase::internal::FileDescriptor socket,
               const keelbase::CAWInetAddr& local, const keelbase::CAWInetAddr& peer);

  keelbase::AWResult GetOption(int code, void* value) override;
  keelbase::AWResult SetOption(int code, void* value) override;

 private:
  const keelbase::CAWInetAddr local_;
  const keelbase::CAWInetAddr peer_;
};

// Makes a transport of a connected socket and hands it to `sink`. A socket whose peer has gone
// meanwhile answers ENOTCONN, no memory ENOMEM; then `out` is null.
int MakeTransport(keelbase::internal::EventLoop& loop, keelbase::internal::FileDescriptor socket,
                  keelbase::CAWAutoPtr<IAWTransport>& out);

}  // namespace wface
