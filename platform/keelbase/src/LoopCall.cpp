// LoopCall.cpp - EventLoop::Call: work that is done on the loop's thread while the caller waits.
#include <condition_variable>
#include <exception>

#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {

namespace {

// Stands on the stack of the caller, who leaves once it is finished.
class WaitingCall final : public LoopTask {
 public:
  explicit WaitingCall(const std::function<void()>& function) : function_(function) {}

  void OnLoopTask() override {
    std::exception_ptr error;
    try {
      function_();
    } catch (...) {
      error = std::current_exception();
    }
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

  const std::function<void()>& function_;
  Mutex mutex_;
  std::condition_variable finished_;
  Outcome outcome_ AW_GUARDED_BY(mutex_) = Outcome::waiting;
  std::exception_ptr error_ AW_GUARDED_BY(mutex_);
};

}  // namespace

void EventLoop::RunThere(const std::function<void()>& function) {
  if (IsCurrent()) return function();
  WaitingCall call(function);
  if (!PostTask(call) || !call.Wait()) function();
}

}  // namespace keelbase::internal
