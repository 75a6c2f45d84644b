// IPCConnector.cpp - see IPCConnector.h.
#include "IPCConnector.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "EndpointName.h"
#include "IPCTransport.h"
#include "PeerCheck.h"

namespace fipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWIPCAddr;

namespace {

// A listener whose queue is full answers EAGAIN: it is alive, so it is asked again for a second.
constexpr std::chrono::milliseconds kBusyPause{10};
constexpr int kBusyAttempts = 100;

}  // namespace

AWResult IPCConnector::SetOption(int code, void* value) {
  if (code != AW_OPT_ALLOW_ANY_USER || value == nullptr) return AW_ERROR_FAILURE;
  allowAnyUser_ = *static_cast<const bool*>(value);
  return AW_OK;
}

// The work is done by a timer that is due at once, so that nothing is indicated from in here.
AWResult IPCConnector::AsyncConnect(IAWIPCAcceptorConnectorSink* sink, const CAWIPCAddr& peer,
                                    std::uint32_t /*parameter*/, const CAWIPCAddr* local) {
  if (sink == nullptr || sink_ != nullptr) return AW_ERROR_FAILURE;
  try {
    peer_ = peer;
    local_ = local != nullptr ? *local : CAWIPCAddr();
    attempts_ = 0;
    sink_ = sink;
    timer_.Start(std::chrono::microseconds(0), 1, [this] { Try(); });
  } catch (const std::bad_alloc&) {
    sink_ = nullptr;
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

AWResult IPCConnector::CancelConnect() {
  timer_.Cancel();
  sink_ = nullptr;
  return AW_OK;
}

void IPCConnector::Try() {
  const CAWAutoPtr<IPCConnector> alive(this);
  CAWAutoPtr<IAWIPCTransport> transport;
  int error = 0;
  try {
    error = Connect(transport);
    if (error == EAGAIN && ++attempts_ < kBusyAttempts) {
      timer_.Start(kBusyPause, 1, [this] { Try(); });
      return;
    }
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  std::exchange(sink_, nullptr)->OnIPCConnectIndication(error, transport.Get(), this);
}

// A connect to a Unix socket succeeds or fails at once.
int IPCConnector::Connect(CAWAutoPtr<IAWIPCTransport>& out) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  const EndpointPath local(local_.GetPath());
  if (!local.name.empty()) {
    const auto name = MakeClientName(local.name);
    if (!name) return ENAMETOOLONG;
    if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&name->address), name->size) != 0)
      return errno;
  }
  EndpointAddress address;
  if (const int error = address.Resolve(EndpointPath(peer_.GetPath())); error != 0) return error;
  if (::connect(socket.Get(), address.Get(), address.Size()) != 0) return errno;
  keelbase::CAWPeerCredentials credentials;
  if (const int error = CheckPeer(socket.Get(), allowAnyUser_, credentials); error != 0)
    return error;
  out = new IPCTransport(GetLoop(), std::move(socket), local_, peer_, credentials);
  return 0;
}

}  // namespace fipc
