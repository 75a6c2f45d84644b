// CAWThread.h - a platform thread: a loop that serves events, timers and transports.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWEventQueue.h"

namespace keelbase {

namespace internal {
class ThreadMaker;
}

// A thread with an event loop. Made by CAWThreadManager, which either starts it or adopts a thread
// that the process already has; never destroyed. It must not be cancelled (pthread_cancel) while it
// serves its loop: what that does would stay half done, so the process stops.
//
// Everything that belongs to a loop (transports, connectors, acceptors, streams, timers) is used on
// that loop's thread. Post and Call are the way in from any other thread:
//
//   auto* network = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK);
//   AWResult result = network->Call([&] { return channel.SendZARNMessage(1, 2, data, size); });
class KEELBASE_API CAWThread {
 public:
  CAWThread(const CAWThread&) = delete;
  CAWThread& operator=(const CAWThread&) = delete;

  CAWEventQueue* GetEventQueue() { return &queue_; }  // any thread

  // Serves the loop on the calling thread until Stop(). Only for an adopted thread, on that thread;
  // 10001 and a trace line otherwise, and when it runs already. May be called again after it has
  // returned.
  AWResult Run();

  // Ends Run() after the event or callback in hand, and after the end of that turn: what was sent
  // by then is written, and a connection that this shows to be broken still tells what has arrived
  // and its end. From any thread. What is still queued, and what is posted from then on, waits for
  // the next Run(), or for the process's clean-up, which destroys it. A Stop() before Run() ends
  // that Run() at once. Does nothing to a thread that the manager has started: that one lives to
  // the process's clean-up.
  void Stop();

  bool IsCurrent() const;  // true on the thread itself, and inside a Call in place

  // Whether what is posted runs soon: always true for a thread that the manager has started, and
  // for an adopted one while Run() runs. Any thread.
  bool IsServing() const;

  // How long the loop looks for work before it sleeps, in microseconds; 0 (the default) sleeps at
  // once. Looking costs one processor for that long after each piece of work: a few looks at shared
  // memory without a pause, then a microsecond with pauses, then it yields between looks. 50 to 100
  // is plenty. Any thread; counts from the next turn of the loop.
  void SetSpin(std::uint32_t microseconds);

  // Runs `function` on this thread, later; on an adopted thread that does not run, in its next
  // Run(). 0, or 10001 once the process's clean-up has ended the thread and without memory (then it
  // is dropped).
  AWResult Post(std::function<void()> function);

  // Runs `function` on this thread, waits, and returns its value or throws what it threw; in place
  // when already there, and in place too once Run() has returned, before what is queued: then one
  // caller at a time, for whom IsCurrent() is true meanwhile, and none while the thread runs again.
  // Must not be called by somebody for whom this thread, or another caller in place, waits.
  template <class Function>
  std::invoke_result_t<Function> Call(Function&& function) {
    using Value = std::invoke_result_t<Function>;
    if constexpr (std::is_void_v<Value>) {
      RunThere([&] { function(); });
    } else {
      std::optional<Value> value;
      RunThere([&] { value.emplace(function()); });
      return std::move(*value);
    }
  }

  // For the platform's own libraries.
  internal::EventLoop& GetLoop() { return *loop_; }

  // Carries out, on the calling thread, everything that can be done without waiting: posted events,
  // due timers, ready transports; returns whether there was anything. For tests that drive an
  // adopted thread by hand.
  bool TEST_RunReady();

 private:
  friend class CAWThreadManager;
  friend class internal::ThreadMaker;
  CAWThread(const char* name);
  ~CAWThread();
  void RunThere(const std::function<void()>& function);

  std::unique_ptr<internal::EventLoop> loop_;
  CAWEventQueue queue_;
  bool adopted_ = false;
};

}  // namespace keelbase
