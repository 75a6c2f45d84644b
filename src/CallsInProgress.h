// CallsInProgress.h - lets the end of a singleton wait for the calls that are inside it.
#pragma once

#include <atomic>
#include <thread>

namespace zarn::utils {

// Used before main() and after the last destructor: constant-initialised, and nothing to destroy.
class CallsInProgress {
 public:
  // Made before the singleton is asked for; while it lives, what was found is not destroyed.
  class Call {
   public:
    explicit Call(CallsInProgress& calls) : count_(calls.count_) {
      count_.fetch_add(1, std::memory_order_acq_rel);
    }
    ~Call() { count_.fetch_sub(1, std::memory_order_release); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

   private:
    std::atomic<unsigned>& count_;
  };

  // Called once nobody can find the singleton any more. Adds nothing, but takes its place among the
  // calls: those before it are waited for, those after it see that the singleton is gone.
  void WaitForNone() {
    while (count_.fetch_add(0, std::memory_order_acq_rel) != 0) std::this_thread::yield();
  }

 private:
  std::atomic<unsigned> count_{0};
};

}  // namespace zarn::utils
