// LoopCall.cpp - EventLoop::Call: work that is done on the loop's thread while the caller waits.
#include <condition_variable>
#include <exception>
#include <memory>
#include <utility>

#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {

namespace {

// Where a caller of Call waits. Also told when the event is dropped without having been fired.
class CallState {
 public:
  enum class Outcome { waiting, done, dropped };

  void Finish(Outcome outcome, std::exception_ptr error = nullptr) {
    const MutexLock lock(mutex_);
    if (outcome_ != Outcome::waiting) return;
    outcome_ = outcome;
    error_ = std::move(error);
    finished_.notify_one();
  }

  bool WaitDone() {
    MutexLock lock(mutex_);
    while (outcome_ == Outcome::waiting) lock.Wait(finished_);
    if (error_) std::rethrow_exception(error_);
    return outcome_ == Outcome::done;
  }

 private:
  Mutex mutex_;
  std::condition_variable finished_;
  Outcome outcome_ AW_GUARDED_BY(mutex_) = Outcome::waiting;
  std::exception_ptr error_ AW_GUARDED_BY(mutex_);
};

class CallEvent final : public IAWEvent {
 public:
  CallEvent(const std::function<void()>& function, std::shared_ptr<CallState> state)
      : function_(function), state_(std::move(state)) {}
  ~CallEvent() override { state_->Finish(CallState::Outcome::dropped); }

  AWResult OnEventFire() override {
    std::exception_ptr error;
    try {
      function_();
    } catch (...) {
      error = std::current_exception();
    }
    state_->Finish(CallState::Outcome::done, std::move(error));
    return AW_OK;
  }

 private:
  const std::function<void()>& function_;  // the caller waits, so it lives
  std::shared_ptr<CallState> state_;
};

}  // namespace

void EventLoop::Call(const std::function<void()>& function) {
  if (IsCurrent()) return function();
  const auto state = std::make_shared<CallState>();
  Post(new CallEvent(function, state));
  if (!state->WaitDone()) function();
}

}  // namespace keelbase::internal
