// TcpConnector.cpp - see TcpConnector.h.
#include "TcpConnector.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "TcpTransport.h"
#include "keelbase/internal/TellOwner.h"

namespace wface {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::internal::Clock;
using keelbase::internal::FileDescriptor;

namespace {

int Bind(int socket, const CAWInetAddr& local) {
  const int on = 1;
  // The kernel chooses the port when it knows the peer, so that each peer has all ports.
  if (local.GetPort() == 0)
    ::setsockopt(socket, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  else
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  return ::bind(socket, local.GetPtr(), local.GetSize()) == 0 ? 0 : errno;
}

}  // namespace

// The work is done by a timer that is due at once, so that nothing is told from in here.
AWResult TcpConnector::AsyncConnect(IAWAcceptorConnectorSink* sink, const CAWInetAddr& peer,
                                    const keelbase::CAWTimeValue* timeout,
                                    const CAWInetAddr* local) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (sink_ != nullptr) return;
    peer_ = peer;
    local_.reset();
    if (local != nullptr) local_ = *local;
    deadline_.reset();
    if (timeout != nullptr) deadline_ = Clock::After(timeout->ToDuration());
    timer_.Start(std::chrono::microseconds(0), 1, [this] { Begin(); });
    sink_ = sink;
    result = AW_OK;
  });
  return result;
}

AWResult TcpConnector::CancelConnect() {
  GetLoop().Call([this] {
    timer_.Cancel();
    Unwatch();
    socket_.Reset();
    sink_ = nullptr;
  });
  return AW_OK;
}

void TcpConnector::Begin() {
  const auto alive = Hold();
  if (!alive) return;  // no peer is asked for nobody
  int error = StartConnect();
  if (error != EINPROGRESS) return Finish(error);
  if (!deadline_) return;
  const auto left = std::chrono::ceil<std::chrono::microseconds>(*deadline_ - Clock::Now());
  timer_.Start(std::max(left, std::chrono::microseconds(0)), 1, [this] { Finish(ETIMEDOUT); });
}

// 0, EINPROGRESS or another errno value.
int TcpConnector::StartConnect() {
  if (peer_ == CAWInetAddr()) return EADDRNOTAVAIL;
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  if (local_) {
    if (const int error = Bind(socket.Get(), *local_); error != 0) return error;
  }
  const int error = ::connect(socket.Get(), peer_.GetPtr(), peer_.GetSize()) == 0 ? 0 : errno;
  if (error != 0 && error != EINPROGRESS) return error;
  socket_ = std::move(socket);
  return AwaitConnect();
}

// On the same machine the connection is there already, although connect has said EINPROGRESS.
int TcpConnector::AwaitConnect() {
  if (GetEnds(socket_.Get(), ends_) == 0) return 0;
  const int refused = GetLoop().Watch(socket_.Get(), EPOLLOUT, *this);
  watched_ = refused == 0;
  return watched_ ? EINPROGRESS : refused;
}

void TcpConnector::OnReady(std::uint32_t /*events*/) {
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(socket_.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  if (error == 0) error = GetEnds(socket_.Get(), ends_);
  Finish(error);
}

void TcpConnector::Unwatch() {
  if (std::exchange(watched_, false)) GetLoop().Unwatch(socket_.Get(), *this);
}

void TcpConnector::Finish(int error) {
  const auto alive = Hold();
  if (!alive) return;
  timer_.Cancel();
  Unwatch();
  CAWAutoPtr<IAWTransport> transport;
  {  // what is not taken over is closed before anybody hears of it
    FileDescriptor socket = std::move(socket_);
    // TCP lets a socket connect to itself when the port it was given is the one it asks for and
    // nobody listens there.
    if (error == 0 && ends_.local == ends_.peer) error = ECONNREFUSED;
    if (error == 0) {
      SetTcpDefaults(socket.Get());  // not before: the silence limit would end the connect
      error = MakeTransport(GetLoop(), std::move(socket), ends_, transport);
    }
  }
  if (error == ENOTCONN) error = ECONNRESET;
  keelbase::internal::TellOwner([&, sink = std::exchange(sink_, nullptr)] {
    sink->OnConnectIndication(error, transport.Get(), this);
  });
}

}  // namespace wface
