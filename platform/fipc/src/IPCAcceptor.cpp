// IPCAcceptor.cpp - see IPCAcceptor.h.
#include "IPCAcceptor.h"

#include <new>
#include <utility>

#include "ClientName.h"
#include "IPCTransport.h"
#include "keelbase/internal/TellOwner.h"

namespace fipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWIPCAddr;
using keelbase::CAWPeerCredentials;
using keelbase::internal::EndpointPath;

IPCAcceptor::IPCAcceptor(keelbase::internal::EventLoop& loop)
    : LoopObject(loop),
      listener_(
          loop,
          [this](FileDescriptor socket, const CAWPeerCredentials& credentials) {
            OnAccepted(std::move(socket), credentials);
          },
          [this](int error) { OnFailed(error); }) {}

AWResult IPCAcceptor::SetOption(int code, void* value) {
  if (code != AW_OPT_ALLOW_ANY_USER || value == nullptr) return AW_ERROR_FAILURE;
  listener_.AllowAnyUser(*static_cast<const bool*>(value));
  return AW_OK;
}

AWResult IPCAcceptor::StartListen(IAWIPCAcceptorConnectorSink* sink, const CAWIPCAddr& addr) try {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (sink_ != nullptr) return;
    address_ = addr;
    result = static_cast<AWResult>(listener_.Start(address_.GetPath()));
    if (result == AW_OK) sink_ = sink;
  });
  return result;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult IPCAcceptor::StopListen() {
  GetLoop().Call([this] {
    listener_.Stop();
    sink_ = nullptr;
  });
  return AW_OK;
}

void IPCAcceptor::OnFailed(int error) {
  const auto alive = Hold();
  if (!alive) return;
  keelbase::internal::TellOwner([this, error, sink = std::exchange(sink_, nullptr)] {
    sink->OnIPCConnectIndication(error, nullptr, this);
  });
}

void IPCAcceptor::OnAccepted(FileDescriptor socket, const CAWPeerCredentials& credentials) {
  const auto alive = Hold();
  if (!alive) return;
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
