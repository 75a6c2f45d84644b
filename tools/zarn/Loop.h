// Loop.h - the event loop of the program, on its main thread, and how it ends.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "keelbase/CAWThread.h"
#include "keelbase/CAWThreadManager.h"
#include "keelbase/CAWTimer.h"

namespace zarn::tool {

// Makes the main thread a thread of the platform: the network thread unless said otherwise, so that
// links, timers and the subcommand itself share one thread. One for the process, made before
// anything else that may start a thread.
class Loop {
 public:
  // `interrupted` runs on the loop at the first of the signals that end the program
  // (Interruption.h); a second one ends the process at once, unless it is the first sent twice.
  explicit Loop(std::function<void()> interrupted,
                int type = keelbase::CAWThreadManager::TT_NETWORK);
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  int Run();              // until Finish, whose code it gives back; at once when that came before
  void Finish(int code);  // on the loop's thread; the first code counts
  bool IsFinished() const { return code_ >= 0; }
  void Post(std::function<void()> function) { thread_->Post(std::move(function)); }  // any thread
  void SetSpin(std::uint32_t microseconds) { thread_->SetSpin(microseconds); }

 private:
  void WaitForSignals();

  std::function<void()> interrupted_;
  keelbase::CAWThread* thread_;
  std::atomic<bool> ended_ = false;  // signals mean nothing any more
  std::thread signals_;
  int code_ = -1;  // -1: not finished
};

// Runs a function on the loop, once or again and again.
class Timer : private keelbase::CAWTimerWrapperIDSink {
 public:
  explicit Timer(std::function<void()> function) : function_(std::move(function)) {}

  void Once(double seconds) { Schedule(seconds, 1); }
  void Every(double seconds) { Schedule(seconds, 0); }
  void Cancel() { timer_.Cancel(); }

 private:
  void Schedule(double seconds, std::uint32_t count);
  void OnTimer(keelbase::CAWTimerWrapperID* /*timer*/) override { function_(); }

  std::function<void()> function_;
  keelbase::CAWTimerWrapperID timer_;
};

}  // namespace zarn::tool
