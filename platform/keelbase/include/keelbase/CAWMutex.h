// CAWMutex.h - a mutex that answers with a result code.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "keelbase/CAWError.h"
#include "keelbase/CAWThreadAnnotations.h"

namespace keelbase {

// Excludes the threads of one process from each other. The thread that holds it may lock it again
// and unlocks it as often. Usable before main() and during exit; destroying it while it is held, or
// while somebody waits for it, is not allowed.
class AW_CAPABILITY("mutex") CAWMutexThread {
 public:
  CAWMutexThread() = default;
  CAWMutexThread(const CAWMutexThread&) = delete;
  CAWMutexThread& operator=(const CAWMutexThread&) = delete;

  // Waits until the lock is ours. 0; 10001 when it is nested deeper than can be counted (not locked
  // then).
  AWResult Lock() AW_TRY_ACQUIRE(false) AW_NO_THREAD_SAFETY_ANALYSIS {
    if (pthread_mutex_lock(&mutex_) != 0) return AW_ERROR_FAILURE;
    holder_.store(pthread_self(), std::memory_order_relaxed);
    ++depth_;
    return AW_OK;
  }

  // 0; 10001 when the calling thread does not hold it (nothing changes then).
  AWResult UnLock() AW_RELEASE() AW_NO_THREAD_SAFETY_ANALYSIS {
    if (holder_.load(std::memory_order_relaxed) != pthread_self()) return AW_ERROR_FAILURE;
    if (--depth_ == 0) holder_.store(pthread_t{}, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex_) == 0 ? AW_OK : AW_ERROR_FAILURE;
  }

 private:
  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  std::atomic<pthread_t> holder_{};
  std::uint32_t depth_ = 0;  // touched by the holder only
};

}  // namespace keelbase
