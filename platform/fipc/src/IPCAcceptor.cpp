// IPCAcceptor.cpp - see IPCAcceptor.h.
#include "IPCAcceptor.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "IPCTransport.h"
#include "PeerCheck.h"

namespace fipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWIPCAddr;

namespace {
constexpr std::chrono::milliseconds kLockPause{5};
}  // namespace

AWResult IPCAcceptor::SetOption(int code, void* value) {
  if (code != AW_OPT_ALLOW_ANY_USER || value == nullptr) return AW_ERROR_FAILURE;
  allowAnyUser_ = *static_cast<const bool*>(value);
  return AW_OK;
}

AWResult IPCAcceptor::StartListen(IAWIPCAcceptorConnectorSink* sink, const CAWIPCAddr& addr) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (sink_ != nullptr) return;
    sink_ = sink;
    address_ = addr;
    result = static_cast<AWResult>(Start());
    if (result != AW_OK) Stop();
  });
  return result;
}

AWResult IPCAcceptor::StopListen() {
  GetLoop().Call([this] { Stop(); });
  return AW_OK;
}

void IPCAcceptor::Stop() {
  retry_.Cancel();
  file_.Remove();
  listener_.reset();
  sink_ = nullptr;
}

int IPCAcceptor::Start() {
  const int error = Listen();
  if (error != EWOULDBLOCK) return error;
  retry_.Start(kLockPause, 0, [this] { Retry(); });
  return 0;
}

int IPCAcceptor::Listen() {
  try {
    FileDescriptor listening;
    if (const int error = file_.Listen(EndpointPath(address_.GetPath()), listening); error != 0)
      return error;
    listener_.emplace(GetLoop(), [this](FileDescriptor socket) { OnAccepted(std::move(socket)); });
    return listener_->Start(std::move(listening));
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

void IPCAcceptor::Retry() {
  const int error = Listen();
  if (error == EWOULDBLOCK) return;
  retry_.Cancel();
  if (error == 0) return;
  const CAWAutoPtr<IPCAcceptor> alive(this);
  IAWIPCAcceptorConnectorSink* sink = sink_;
  Stop();
  sink->OnIPCConnectIndication(error, nullptr, this);
}

void IPCAcceptor::OnAccepted(FileDescriptor socket) {
  keelbase::CAWPeerCredentials credentials;
  if (CheckPeer(socket.Get(), allowAnyUser_, credentials) != 0) return;
  const CAWAutoPtr<IPCAcceptor> alive(this);
  try {
    const CAWIPCAddr peer = PeerAddress(socket.Get());
    const CAWAutoPtr<IAWIPCTransport> transport(
        new IPCTransport(GetLoop(), std::move(socket), address_, peer, credentials));
    sink_->OnIPCConnectIndication(0, transport.Get(), this);
  } catch (const std::bad_alloc&) {
    // This one connection is closed; the next may find memory again.
  }
}

// The endpoint that a client claims as its own stands in the same directory as ours.
CAWIPCAddr IPCAcceptor::PeerAddress(int socket) const {
  sockaddr_un address{};
  socklen_t size = sizeof address;
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  const auto name = ParseClientName(address, size);
  if (!name) return {};
  return CAWIPCAddr(EndpointPath(address_.GetPath()).directory + "/" + *name);
}

}  // namespace fipc
