// LockForCall.h - holds a lock for one call, if it can be had.
#pragma once

#include "keelbase/CAWThreadAnnotations.h"

namespace zarn::utils {

// A lock that fails stops nobody: the call goes on without it, and what was not locked is not
// unlocked.
template <class Mutex>
class LockForCall {
 public:
  explicit LockForCall(Mutex& mutex) AW_NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex),
                                                                    locked_(mutex.Lock() == 0) {}
  ~LockForCall() AW_NO_THREAD_SAFETY_ANALYSIS {
    if (locked_) mutex_.UnLock();
  }
  LockForCall(const LockForCall&) = delete;
  LockForCall& operator=(const LockForCall&) = delete;

 private:
  Mutex& mutex_;
  const bool locked_;
};

}  // namespace zarn::utils
