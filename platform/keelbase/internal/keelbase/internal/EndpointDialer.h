// EndpointDialer.h - connects to an endpoint file.
#pragma once

#include <functional>
#include <string>

#include "keelbase/CAWTransport.h"
#include "keelbase/internal/EndpointPath.h"
#include "keelbase/internal/TimerQueue.h"

namespace keelbase::internal {

// A connect to a Unix socket succeeds or fails at once, but for a listener whose queue is full:
// that one is asked again for a second. Start and Cancel: on any thread, one at a time.
class KEELBASE_API EndpointDialer {
 public:
  // Error 0: the connection, to a peer of our own user or root (to anybody, where that is allowed).
  // Comes on the loop's thread, once; may destroy the dialer.
  using Prepare = std::function<int(int socket)>;
  using Done = std::function<void(int error, FileDescriptor, const CAWPeerCredentials&)>;

  explicit EndpointDialer(EventLoop& loop) : timer_(loop) {}
  EndpointDialer(const EndpointDialer&) = delete;
  EndpointDialer& operator=(const EndpointDialer&) = delete;

  void AllowAnyUser(bool allow) { allowAnyUser_ = allow; }

  // `prepare` (empty for none) gets each socket before it is connected; what it answers, if not 0,
  // is the result. `done` is never called from in here. May throw std::bad_alloc.
  void Start(std::string path, Prepare prepare, Done done);
  void Cancel() { timer_.Cancel(); }

 private:
  void Try();
  int Connect(FileDescriptor& out, CAWPeerCredentials& credentials) const;

  std::string path_;
  Prepare prepare_;
  Done done_;
  bool allowAnyUser_ = false;
  int attempts_ = 0;
  Timer timer_;
};

}  // namespace keelbase::internal
