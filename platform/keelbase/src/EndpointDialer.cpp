// EndpointDialer.cpp - see EndpointDialer.h.
#include "keelbase/internal/EndpointDialer.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "keelbase/internal/PassedDescriptors.h"
#include "keelbase/internal/PeerCheck.h"

namespace keelbase::internal {

namespace {
constexpr std::chrono::milliseconds kBusyPause{10};
constexpr int kBusyAttempts = 100;
}  // namespace

// The work is done by a timer that is due at once, so that nothing is told from in here.
void EndpointDialer::Start(std::string path, Prepare prepare, Done done) {
  path_ = std::move(path);
  prepare_ = std::move(prepare);
  done_ = std::move(done);
  attempts_ = 0;
  timer_.Start(std::chrono::microseconds(0), 1, [this] { Try(); });
}

void EndpointDialer::Try() {
  FileDescriptor socket;
  CAWPeerCredentials credentials;
  int error = 0;
  try {
    error = Connect(socket, credentials);
    if (error == EAGAIN && ++attempts_ < kBusyAttempts) {
      timer_.Start(kBusyPause, 1, [this] { Try(); });
      return;
    }
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  const Done done = std::move(done_);
  done(error, std::move(socket), credentials);
}

int EndpointDialer::Connect(FileDescriptor& out, CAWPeerCredentials& credentials) const {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  RefuseDescriptors(socket.Get());
  if (prepare_) {
    if (const int error = prepare_(socket.Get()); error != 0) return error;
  }
  EndpointAddress address;
  if (const int error = address.Resolve(EndpointPath(path_)); error != 0) return error;
  if (::connect(socket.Get(), address.Get(), address.Size()) != 0) return errno;
  if (const int error = CheckPeer(socket.Get(), allowAnyUser_, credentials); error != 0)
    return error;
  out = std::move(socket);
  return 0;
}

}  // namespace keelbase::internal
