// StreamListener.cpp - see StreamListener.h.
#include "keelbase/internal/StreamListener.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "keelbase/internal/TraceError.h"

namespace keelbase::internal {

namespace {

constexpr int kAcceptsPerTurn = 64;
constexpr std::chrono::milliseconds kPause{100};

// Errors of one connection, which is gone by then; the listener goes on.
bool IsOfConnection(int error) {
  return error == ECONNABORTED || error == EINTR || error == EPROTO || error == EPERM ||
         error == ENETDOWN || error == EHOSTDOWN || error == EHOSTUNREACH || error == ENETUNREACH;
}

}  // namespace

StreamListener::StreamListener(EventLoop& loop, OnAccepted accepted)
    : loop_(loop), accepted_(std::move(accepted)), pause_(loop) {}

StreamListener::~StreamListener() {
  if (destroyed_ != nullptr) *destroyed_ = true;
  if (listening_) loop_.Unwatch(listening_.Get(), *this);
}

int StreamListener::Start(FileDescriptor listening) {
  const int error = loop_.Watch(listening.Get(), EPOLLIN, *this);
  if (error == 0) listening_ = std::move(listening);
  return error;
}

void StreamListener::OnReady(std::uint32_t /*events*/) {
  bool destroyed = false;
  destroyed_ = &destroyed;
  int aborted = 0;
  for (int i = 0; i < kAcceptsPerTurn; ++i) {
    FileDescriptor accepted(
        ::accept4(listening_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (accepted) {
      failing_ = false;
      accepted_(std::move(accepted));
      if (destroyed) return;
    } else if (!IsOfConnection(errno) || ++aborted == kAcceptsPerTurn) {
      if (errno != EAGAIN && errno != EWOULDBLOCK) Pause(errno);
      break;
    }
  }
  destroyed_ = nullptr;
}

void StreamListener::Pause(int error) {
  if (!std::exchange(failing_, true)) TraceError("no connection is accepted for now", error);
  loop_.Change(listening_.Get(), 0, *this);
  pause_.Start(kPause, 1, [this] { Resume(); });
}

void StreamListener::Resume() {
  if (const int error = loop_.Change(listening_.Get(), EPOLLIN, *this); error != 0) Pause(error);
}

}  // namespace keelbase::internal
