// TcpAcceptor.cpp - see TcpAcceptor.h.
#include "TcpAcceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "TcpSocket.h"
#include "TcpTransport.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TraceError.h"

namespace wface {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::internal::FileDescriptor;

AWResult TcpAcceptor::StartListen(IAWAcceptorConnectorSink* sink, const CAWInetAddr& addr,
                                  int backlog) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (listener_) return;
    result = static_cast<AWResult>(Listen(addr, backlog));
    if (result == AW_OK) {
      sink_ = sink;
    } else {
      listener_.reset();
    }
  });
  return result;
}

AWResult TcpAcceptor::StopListen() {
  GetLoop().Call([this] { listener_.reset(); });
  return AW_OK;
}

CAWInetAddr TcpAcceptor::GetLocalAddr() const {
  CAWInetAddr local;
  GetLoop().Call([&] { local = local_; });
  return local;
}

int TcpAcceptor::Listen(const CAWInetAddr& addr, int backlog) try {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  SetTcpDefaults(socket.Get());
  const int on = 1;  // connections of an earlier listener that still linger are no hindrance
  ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(socket.Get(), addr.GetPtr(), addr.GetSize()) != 0) return errno;
  if (::listen(socket.Get(), backlog > 0 ? backlog : SOMAXCONN) != 0) return errno;
  if (const int error = GetLocalAddress(socket.Get(), local_); error != 0) return error;
  listener_.emplace(GetLoop(),
                    [this](FileDescriptor accepted) { OnAccepted(std::move(accepted)); });
  return listener_->Start(std::move(socket));
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

void TcpAcceptor::OnAccepted(FileDescriptor socket) {
  const auto alive = Hold();
  if (!alive) return;
  CAWAutoPtr<IAWTransport> transport;
  // Without memory, or when the client has gone already, only this connection is closed.
  TcpEnds ends;
  int error = GetEnds(socket.Get(), ends);
  if (error == 0) error = MakeTransport(GetLoop(), std::move(socket), ends, transport);
  if (error == 0)
    keelbase::internal::TellOwner([&] { sink_->OnConnectIndication(0, transport.Get(), this); });
  else if (error != ENOTCONN)
    keelbase::internal::TraceError("a client is refused", error);
}

}  // namespace wface
