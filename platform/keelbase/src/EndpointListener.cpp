// EndpointListener.cpp - see EndpointListener.h.
#include "keelbase/internal/EndpointListener.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "keelbase/internal/PeerCheck.h"

namespace keelbase::internal {

namespace {
constexpr std::chrono::milliseconds kLockPause{5};
}  // namespace

EndpointListener::EndpointListener(EventLoop& loop, OnAccepted accepted, OnFailed failed)
    : loop_(loop), accepted_(std::move(accepted)), failed_(std::move(failed)), retry_(loop) {}

int EndpointListener::Start(const std::string& path) {
  path_ = path;
  const int error = Listen();
  if (error == EWOULDBLOCK) {
    retry_.Start(kLockPause, 0, [this] { Retry(); });
    return 0;
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
      if (CheckPeer(socket.Get(), allowAnyUser_, credentials) == 0)
        accepted_(std::move(socket), credentials);
    });
    return listener_->Start(std::move(listening));
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

void EndpointListener::Retry() {
  const int error = Listen();
  if (error == EWOULDBLOCK) return;
  retry_.Cancel();
  if (error == 0) return;
  Stop();
  failed_(error);
}

}  // namespace keelbase::internal
