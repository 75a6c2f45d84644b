// ShmIPCConnector.cpp - see ShmIPCConnector.h.
#include "ShmIPCConnector.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "ShmEndpoint.h"
#include "ShmGreeting.h"
#include "ShmIPCTransport.h"
#include "keelbase/internal/TellOwner.h"

namespace fshmipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWPeerCredentials;

namespace {

// For welcome and answer together. An acceptor sends both at once; one that is stopped or of
// another kind never does.
constexpr std::chrono::seconds kAnswerTime{2};

}  // namespace

AWResult ShmIPCConnector::SetOption(int code, void* value) {
  if (value == nullptr) return AW_ERROR_FAILURE;
  if (code == AW_OPT_ALLOW_ANY_USER) {
    dialer_.AllowAnyUser(*static_cast<const bool*>(value));
    return AW_OK;
  }
  const auto size = static_cast<const std::uint32_t*>(value);
  if (code != AW_OPT_RING_SIZE || !IsRingSize(*size)) return AW_ERROR_FAILURE;
  ringSize_ = *size;
  return AW_OK;
}

AWResult ShmIPCConnector::AsyncConnect(IAWShmIPCAcceptorConnectorSink* sink,
                                       const CAWShmIPCAddr& peer, std::uint32_t /*parameter*/,
                                       const CAWShmIPCAddr* local) {
  if (sink == nullptr || sink_ != nullptr) return AW_ERROR_FAILURE;
  try {
    peer_ = peer;
    local_ = local != nullptr ? *local : CAWShmIPCAddr();
    sink_ = sink;
    dialer_.Start(EndpointFileOf(systemPath_.Get(), peer_), nullptr,
                  [this](int error, FileDescriptor socket, const CAWPeerCredentials& credentials) {
                    OnDialled(error, std::move(socket), credentials);
                  });
  } catch (const std::bad_alloc&) {
    sink_ = nullptr;
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

AWResult ShmIPCConnector::CancelConnect() {
  GetLoop().Call([this] { Stop(); });
  return AW_OK;
}

void ShmIPCConnector::Stop() {
  dialer_.Cancel();
  timeLimit_.Cancel();
  if (std::exchange(watched_, false)) GetLoop().Unwatch(socket_.Get(), *this);
  socket_.Reset();
  greeted_ = false;
  segment_.Unmap();
  sink_ = nullptr;
}

void ShmIPCConnector::OnDialled(int error, FileDescriptor socket,
                                const CAWPeerCredentials& credentials) {
  socket_ = std::move(socket);
  credentials_ = credentials;
  if (error == 0) error = AwaitWelcome();
  if (error != 0) Finish(systemPath_.IsEmpty() ? static_cast<int>(AW_ERROR_FAILURE) : error);
}

int ShmIPCConnector::AwaitWelcome() {
  if (const int error = GetLoop().Watch(socket_.Get(), EPOLLIN, *this); error != 0) return error;
  watched_ = true;
  timeLimit_.Start(kAnswerTime, 1, [this] { Finish(ETIMEDOUT); });
  return 0;
}

int ShmIPCConnector::Greet() {
  FileDescriptor memory;
  if (const int error = segment_.Create(ringSize_, memory); error != 0) return error;
  greeted_ = true;
  return SendGreeting(socket_.Get(), local_, ringSize_, memory.Get());
}

void ShmIPCConnector::OnReady(std::uint32_t /*events*/) {
  const auto alive = Hold();
  if (!alive) return;  // no memory is made for nobody
  int error = greeted_ ? ReceiveAnswer(socket_.Get()) : ReceiveWelcome(socket_.Get());
  if (error == EAGAIN) return;
  if (error == 0 && !greeted_) {
    error = Greet();
    if (error == 0) return;
  }
  Finish(error);
}

void ShmIPCConnector::Finish(int error) {
  const auto alive = Hold();
  if (!alive) return;
  CAWAutoPtr<IAWShmIPCTransport> transport;
  if (std::exchange(watched_, false)) GetLoop().Unwatch(socket_.Get(), *this);
  if (error == 0) {
    try {
      const CAWAutoPtr<ShmConnection> connection(new ShmConnection(
          GetLoop(), std::move(socket_), std::move(segment_), ShmConnection::Side::connector));
      transport = new ShmIPCTransport(GetLoop(), connection.Get(), local_, peer_, credentials_);
    } catch (const std::bad_alloc&) {
      error = ENOMEM;
    }
  }
  IAWShmIPCAcceptorConnectorSink* sink = sink_;
  Stop();
  keelbase::internal::TellOwner(
      [&] { sink->OnShmIPCConnectIndication(error, transport.Get(), this); });
}

}  // namespace fshmipc
