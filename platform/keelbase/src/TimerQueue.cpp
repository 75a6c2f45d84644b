// TimerQueue.cpp - see TimerQueue.h.
#include "keelbase/internal/TimerQueue.h"

#include <algorithm>
#include <utility>

#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {

void Timer::Start(std::chrono::microseconds interval, std::uint32_t count, Function function) {
  Cancel();
  interval_ = std::clamp(interval, std::chrono::microseconds(count == 1 ? 0 : 1), Clock::kLongest);
  left_ = count;
  function_ = std::move(function);
  loop_.Timers().Add(*this, Clock::Now() + interval_);
  loop_.WakeForTimer();
}

void Timer::Cancel() { loop_.Timers().Remove(*this, loop_.IsCurrent()); }

bool Timer::IsActive() const { return loop_.Timers().Contains(*this); }

void TimerQueue::Add(Timer& timer, Clock::Point due) {
  const MutexLock lock(mutex_);
  timer.place_ = timers_.emplace(due, &timer);
}

void TimerQueue::Remove(Timer& timer, bool onLoopThread) {
  MutexLock lock(mutex_);
  Forget(timer);
  if (onLoopThread) return;
  while (firing_ == &timer) lock.Wait(fired_);
  Forget(timer);  // the call may have started it again
}

void TimerQueue::Forget(Timer& timer) {
  if (timer.place_) timers_.erase(*std::exchange(timer.place_, std::nullopt));
}

bool TimerQueue::Contains(const Timer& timer) const {
  const MutexLock lock(mutex_);
  return timer.place_.has_value();
}

std::optional<Clock::Point> TimerQueue::NextDue() const {
  const MutexLock lock(mutex_);
  if (timers_.empty()) return std::nullopt;
  return timers_.begin()->first;
}

// The next call is put into place before this one runs, so that the timer need not exist after it.
// A late call moves the following ones.
void TimerQueue::Reschedule(Timer& timer, Clock::Point now) {
  auto node = timers_.extract(*timer.place_);
  if (timer.left_ == 1) {
    timer.place_ = std::nullopt;
    return;
  }
  if (timer.left_ != 0) --timer.left_;
  const Clock::Point next = node.key() + timer.interval_;
  node.key() = next > now ? next : now + timer.interval_;
  timer.place_ = timers_.insert(std::move(node));
}

bool TimerQueue::RunNextDue(std::optional<Clock::Point>& now) {
  MutexLock lock(mutex_);
  if (timers_.empty()) return false;
  if (!now) now = Clock::Now();
  if (timers_.begin()->first > *now) return false;
  Timer& timer = *timers_.begin()->second;
  Reschedule(timer, *now);
  firing_ = &timer;
  const Timer::Function function = timer.function_;
  lock.Unlock();
  function();
  lock.Lock();
  firing_ = nullptr;
  fired_.notify_all();
  return true;
}

}  // namespace keelbase::internal
