// EndpointListener.cpp - see EndpointListener.h.
#include "keelbase/internal/EndpointListener.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "keelbase/internal/PeerCheck.h"
#include "keelbase/internal/TraceError.h"

namespace keelbase::internal {

namespace {
constexpr std::chrono::milliseconds kLockPause{5};

// Setting up an endpoint takes a moment; whoever may read the directory can hold it for ever.
constexpr std::chrono::seconds kLockTime{10};
}  // namespace

EndpointListener::EndpointListener(EventLoop& loop, OnAccepted accepted, OnFailed failed)
    : loop_(loop), accepted_(std::move(accepted)), failed_(std::move(failed)), retry_(loop) {}

int EndpointListener::Start(const std::string& path) {
  int error = 0;
  try {
    path_ = path;
    error = Listen();
    if (error == EWOULDBLOCK) {
      giveUp_ = Clock::Now() + kLockTime;
      retry_.Start(kLockPause, 0, [this] { Retry(); });
      return 0;
    }
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  if (error != 0) Stop();
  return error;
}

void EndpointListener::Stop() {
  retry_.Cancel();
  file_.Remove();
  listener_.reset();
}

int EndpointListener::Listen() {
  try {
    FileDescriptor listening;
    if (const int error = file_.Listen(EndpointPath(path_), listening); error != 0) return error;
    listener_.emplace(loop_, [this](FileDescriptor socket) {
      CAWPeerCredentials credentials;
      const int error = CheckPeer(socket.Get(), allowAnyUser_, credentials);
      if (error == 0) return accepted_(std::move(socket), credentials);
      if (error != EACCES) TraceError("a client cannot be told from others and is refused", error);
    });
    return listener_->Start(std::move(listening));
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

void EndpointListener::Retry() {
  const int error = Listen();
  if (error == EWOULDBLOCK && Clock::Now() < giveUp_) return;
  retry_.Cancel();
  if (error == 0) return;
  Stop();
  failed_(error);
}

}  // namespace keelbase::internal
