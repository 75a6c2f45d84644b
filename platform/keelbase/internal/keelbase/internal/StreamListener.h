// StreamListener.h - accepts on one listening socket.
#pragma once

#include <functional>

#include "keelbase/CAWDefines.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FileDescriptor.h"

namespace keelbase::internal {

// Hands each accepted connection (non-blocking, close-on-exec) to a function on the loop's thread.
// Out of descriptors or memory it says so once in the trace and pauses a tenth of a second at a
// time; whoever waits then is accepted later. The function may destroy the listener.
class KEELBASE_API StreamListener final : private Watcher {
 public:
  using OnAccepted = std::function<void(FileDescriptor)>;

  StreamListener(EventLoop& loop, OnAccepted accepted);
  ~StreamListener();
  StreamListener(const StreamListener&) = delete;
  StreamListener& operator=(const StreamListener&) = delete;

  // Takes over a socket on which listen() has been called. 0 or an errno value.
  int Start(FileDescriptor listening);

 private:
  void OnReady(std::uint32_t events) override;
  void Pause(int error);
  void Resume();

  EventLoop& loop_;
  OnAccepted accepted_;
  FileDescriptor listening_;
  Timer pause_;
  bool failing_ = false;       // since the last that was accepted
  bool* destroyed_ = nullptr;  // set while a function runs
};

}  // namespace keelbase::internal
