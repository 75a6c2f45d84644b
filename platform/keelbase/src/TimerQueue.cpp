// TimerQueue.cpp - see TimerQueue.h.
#include "keelbase/internal/TimerQueue.h"

#include <algorithm>
#include <utility>

#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {

Timer::Timer(EventLoop& loop) : loop_(loop) {
  TimersByDue one;
  idle_ = one.extract(one.emplace(Clock::Point(), this));
}

void Timer::Start(std::chrono::microseconds interval, std::uint32_t count,
                  Function function) noexcept {
  if (loop_.IsLeftToParent()) return;
  Cancel();
  interval_ = std::clamp(interval, std::chrono::microseconds(count == 1 ? 0 : 1), Clock::kMaxWait);
  left_ = count;
  function_ = std::move(function);
  loop_.Timers().Add(*this, Clock::Now() + interval_);
  loop_.WakeForTimer();
}

// Its own callback, which must not be waited for, may act in place on another loop just now.
void Timer::Cancel() {
  if (loop_.IsLeftToParent()) return;
  loop_.Timers().Remove(*this, loop_.IsCurrent() || loop_.IsHeldHere());
}

bool Timer::IsActive() const { return loop_.Timers().Contains(*this); }

void TimerQueue::Add(Timer& timer, Clock::Point due) {
  const MutexLock lock(mutex_);
  if (!timer.ending_) Insert(timer, due);
}

void TimerQueue::Insert(Timer& timer, Clock::Point due) {
  timer.idle_.key() = due;
  timer.place_ = timers_.insert(std::move(timer.idle_));
}

void TimerQueue::Remove(Timer& timer, bool onLoopThread) {
  MutexLock lock(mutex_);
  Forget(timer);
  if (onLoopThread) return;
  timer.ending_ = true;
  while (firing_ == &timer) lock.Wait(fired_);
  timer.ending_ = false;
}

void TimerQueue::Forget(Timer& timer) {
  if (timer.idle_.empty()) timer.idle_ = timers_.extract(timer.place_);
}

bool TimerQueue::Contains(const Timer& timer) const {
  const MutexLock lock(mutex_);
  return timer.idle_.empty();
}

std::optional<Clock::Point> TimerQueue::NextDue() const {
  const MutexLock lock(mutex_);
  if (timers_.empty()) return std::nullopt;
  return timers_.begin()->first;
}

// The next call is put into place before this one runs, so that the timer need not exist after it.
// A late call moves the following ones.
void TimerQueue::Reschedule(Timer& timer, Clock::Point now) {
  const Clock::Point next = timer.place_->first + timer.interval_;
  Forget(timer);
  if (timer.left_ == 1) return;
  if (timer.left_ != 0) --timer.left_;
  Insert(timer, next > now ? next : now + timer.interval_);
}

bool TimerQueue::RunNextDue(std::optional<Clock::Point>& begin) {
  MutexLock lock(mutex_);
  if (timers_.empty()) return false;
  const bool first = !begin;
  if (first) begin = Clock::Now();
  if (timers_.begin()->first > *begin) return false;
  Timer& timer = *timers_.begin()->second;
  Reschedule(timer, first ? *begin : Clock::Now());  // those before it may have taken long
  firing_ = &timer;
  const Timer::Function function = timer.function_;
  lock.Unlock();
  function();
  ForgetFiring();
  return true;
}

void TimerQueue::ForgetFiring() {
  const MutexLock lock(mutex_);
  firing_ = nullptr;
  fired_.notify_all();
}

}  // namespace keelbase::internal
