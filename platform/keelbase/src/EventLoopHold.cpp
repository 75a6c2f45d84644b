// EventLoopHold.cpp - who may work on an EventLoop, and what other threads have for it: done on its
// thread, and once the loop has stopped, in place, by one thread at a time.
//
//                closed_  refusing_  running_  holder_     Post     Call elsewhere  Run, own thread
// not yet run    no       no         no        0           kept     waits for Run   yes
// runs           no       no         yes       its thread  run      waits           10001
// stopped        yes      no         no        0           kept     in place        yes
// used in place  yes      either     no        a thread    as else  waits           waits
// ended          yes      yes        no        0           refused  in place        yes
//
// holds_ counts how often the holder has entered. Before the first run the loop's own thread works
// in place, too. A loop that exit() was called on ends with running_ set: it does not run again.
// leftAlone_: at exit one that was used in place did not become free in time.
#include <chrono>
#include <condition_variable>
#include <exception>
#include <utility>

#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/ThreadName.h"

namespace keelbase::internal {

// Stands on the stack of the caller, who leaves once it is finished.
class EventLoop::WaitingCall final : public LoopTask {
 public:
  WaitingCall(EventLoop& loop, const std::function<void()>& function)
      : loop_(loop), function_(function) {}

  void OnLoopTask() override {
    const std::uint64_t outer = std::exchange(loop_.caller_, caller_);
    std::exception_ptr error;
    try {
      function_();
    } catch (...) {
      error = std::current_exception();
    }
    loop_.caller_ = outer;
    Finish(Outcome::done, error);
  }
  void OnDropped() override { Finish(Outcome::dropped, nullptr); }

  // False when it was dropped. Throws what the function has thrown.
  bool Wait() {
    MutexLock lock(mutex_);
    while (outcome_ == Outcome::waiting) lock.Wait(finished_);
    if (error_) std::rethrow_exception(error_);
    return outcome_ == Outcome::done;
  }

 private:
  enum class Outcome { waiting, done, dropped };

  // Under the lock to the end, or the caller could be gone by then.
  void Finish(Outcome outcome, const std::exception_ptr& error) {
    const MutexLock lock(mutex_);
    outcome_ = outcome;
    error_ = error;
    finished_.notify_one();
  }

  EventLoop& loop_;
  const std::uint64_t caller_ = CurrentThreadNumber();
  const std::function<void()>& function_;
  Mutex mutex_;
  std::condition_variable finished_;
  Outcome outcome_ AW_GUARDED_BY(mutex_) = Outcome::waiting;
  std::exception_ptr error_ AW_GUARDED_BY(mutex_);
};

// --- who works on the loop ---

bool EventLoop::IsHeldHere() const {
  return holder_.load(std::memory_order_relaxed) == CurrentThreadNumber();
}

bool EventLoop::IsBoundHere() const { return GetThreadNumber() == CurrentThreadNumber(); }

bool EventLoop::IsUsedInPlace() const { return closed_ && holder_ != 0 && !IsHeldHere(); }

// For work in place. False when the loop must be asked to do it: it runs, or is still to run.
bool EventLoop::TakeHold() {
  MutexLock lock(mutex_);
  while (IsUsedInPlace()) lock.Wait(holdChanged_);
  return TryHold();
}

// The same. False, too, when whoever works in place does not end soon: that is found out once.
bool EventLoop::TakeHoldAtExit() {
  const auto end = std::chrono::system_clock::now() + std::chrono::seconds(3);
  MutexLock lock(mutex_);
  while (IsUsedInPlace()) {
    if (leftAlone_) return false;
    leftAlone_ = !lock.WaitUntil(holdChanged_, end);
  }
  return TryHold();
}

bool EventLoop::TryHold() {
  if (!closed_ && !IsHeldHere() && !IsBoundHere()) return false;
  AddHold();
  return true;
}

// Those who wait to work in place are to post again. Whoever works there now may be ending the
// process, and close the loop once more.
void EventLoop::TakeHoldToRun() {
  MutexLock lock(mutex_);
  Reopen();
  holdChanged_.notify_all();
  while (holder_ != 0 && !IsHeldHere()) lock.Wait(holdChanged_);
  Reopen();
  AddHold();
}

void EventLoop::Reopen() {
  closed_ = false;
  refusing_ = false;
  callbacksOver_ = IsLeftToParent();
}

void EventLoop::AddHold() {
  holder_ = CurrentThreadNumber();
  ++holds_;
}

// What was handed over meanwhile is done first, but for what waits for the loop to run again.
void EventLoop::LeaveHold() {
  MutexLock lock(mutex_);
  while (holds_ == 1 && closed_) {
    LoopTask* tasks = TakeTasksForNow();
    if (tasks == nullptr) break;
    lock.Unlock();
    while (tasks != nullptr) std::exchange(tasks, tasks->nextTask)->OnLoopTask();
    lock.Lock();
  }
  if (--holds_ != 0) return;
  holder_ = 0;
  holdChanged_.notify_all();
}

// Those that do not wait for the next run, the first one first.
LoopTask* EventLoop::TakeTasksForNow() {
  LoopTask* taken = nullptr;
  for (LoopTask** place = &tasks_; *place != nullptr;) {
    LoopTask& task = **place;
    if (task.OutlastsRun()) {
      place = &task.nextTask;
    } else {
      *place = std::exchange(task.nextTask, std::exchange(taken, &task));
    }
  }
  return taken;
}

bool EventLoop::InheritFrom(const EventLoop& served) {
  const MutexLock lock(mutex_);
  if (served.caller_ == 0 || holder_ != served.caller_ || IsHeldHere()) return false;
  holder_ = CurrentThreadNumber();
  return true;
}

// --- work from other threads ---

void EventLoop::RunThere(const std::function<void()>& function) {
  if (IsLeftToParent()) return function();
  const bool mine = IsHeldHere();
  if (mine && IsCurrent()) return function();
  for (;;) {
    if (!mine && !IsBoundHere()) {
      WaitingCall call(*this, function);
      if (PostTask(call)) {
        if (call.Wait()) return;
        continue;
      }
    }
    if (const InPlace here(*this, TakeHold()); here) return function();
  }
}

void EventLoop::HandOver(LoopTask& task) {
  if (IsLeftToParent()) {
    task.nextTask = std::exchange(runningTasks_, &task);  // where leak checkers find it
    return;
  }
  if (IsHeldHere() && IsCurrent()) return task.OnLoopTask();
  bool mine = false;
  bool wake = false;
  {
    const MutexLock lock(mutex_);
    mine = holder_ == 0 ? closed_ || IsBoundHere() : IsHeldHere();
    if (mine) {
      AddHold();
    } else {
      wake = Enqueue(task);
    }
  }
  if (wake) Wake();
  if (!mine) return;
  const InPlace here(*this, true);
  task.OnLoopTask();
}

}  // namespace keelbase::internal
