// TimerQueue.h - the timers of one event loop.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "keelbase/internal/Clock.h"
#include "keelbase/internal/Mutex.h"

namespace keelbase::internal {

class EventLoop;
class Timer;
using TimersByDue = std::multimap<Clock::Point, Timer*>;

// One timer of a loop; its function runs on the loop's thread and may cancel or destroy the timer.
// Start and Cancel may be called from any thread, one at a time.
class KEELBASE_API Timer {
 public:
  using Function = std::function<void()>;

  explicit Timer(EventLoop& loop);  // takes the memory that it will need
  ~Timer() { Cancel(); }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // First after one interval, then every interval; `count` times, 0 for ever. Replaces what was
  // started.
  void Start(std::chrono::microseconds interval, std::uint32_t count, Function function) noexcept;

  // On another thread than the loop's it waits for a call that is just running. Meanwhile a Start
  // does nothing: the next call could begin before whoever waits has woken, and so could each one
  // after it.
  void Cancel();

  bool IsActive() const;
  EventLoop& GetLoop() const { return loop_; }

 private:
  friend class TimerQueue;
  EventLoop& loop_;
  std::chrono::microseconds interval_{0};
  std::uint32_t left_ = 0;  // calls to come; 0 for ever
  Function function_;
  TimersByDue::node_type idle_;  // empty while the queue has it, at place_
  TimersByDue::iterator place_;
  bool ending_ = false;  // somebody waits in Cancel()
};

// Ordered by due time. Firing happens on the loop's thread; everything else on any.
class TimerQueue {
 public:
  void Add(Timer& timer, Clock::Point due);
  void Remove(Timer& timer, bool onLoopThread);
  bool Contains(const Timer& timer) const;

  std::optional<Clock::Point> NextDue() const;

  // Fires the first timer that is due; false when there is none. `begin` is set by the first call
  // of a turn, if there is a timer at all: what was not due then does not fire in this turn.
  bool RunNextDue(std::optional<Clock::Point>& begin);

  // The call that is just running never returns: nobody waits for it.
  void ForgetFiring();

 private:
  void Insert(Timer& timer, Clock::Point due) AW_REQUIRES(mutex_);
  void Forget(Timer& timer) AW_REQUIRES(mutex_);
  void Reschedule(Timer& timer, Clock::Point now) AW_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::condition_variable fired_;
  TimersByDue timers_ AW_GUARDED_BY(mutex_);
  const Timer* firing_ AW_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace keelbase::internal
