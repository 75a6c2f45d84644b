// CallsInProgress.h - lets the end of a singleton wait for the calls that are inside it.
#pragma once

#include <array>
#include <atomic>
#include <thread>

namespace zarn::utils {

// Used before main() and after the last destructor: constant-initialised, and nothing to destroy.
class CallsInProgress {
 public:
  // Made before the singleton is asked for; while it lives, what was found is not destroyed.
  class Call {
   public:
    explicit Call(CallsInProgress& calls)
        : count_(calls.counts_[calls.ended_.load(std::memory_order_acquire) ? 1 : 0]) {
      count_.fetch_add(1, std::memory_order_acq_rel);
    }
    ~Call() { count_.fetch_sub(1, std::memory_order_release); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

   private:
    std::atomic<unsigned>& count_;
  };

  // Called once nobody can find the singleton any more. Calls that begin from now on are counted by
  // themselves, or threads that never stop calling would hold the end up. Adds nothing to those
  // before, but takes its place among them: who comes after it sees that the singleton is gone.
  void WaitForEarlierOnes() {
    ended_.store(true, std::memory_order_release);
    while (counts_[0].fetch_add(0, std::memory_order_acq_rel) != 0) std::this_thread::yield();
  }

 private:
  std::atomic<bool> ended_{false};
  std::array<std::atomic<unsigned>, 2> counts_{};  // before the end, and after
};

}  // namespace zarn::utils
