// Mutex.h - std::mutex with annotations that Clang checks; the platform's own lock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "keelbase/CAWThreadAnnotations.h"

namespace keelbase::internal {

class AW_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() AW_ACQUIRE() { mutex_.lock(); }
  void Unlock() AW_RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a Mutex for a scope. The analysis does not look into lambdas, so a wait is written as a
// loop:
//   MutexLock lock(mutex_);
//   while (!ready_) lock.Wait(condition_);
class AW_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) AW_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() AW_RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // For a stretch without the lock inside the scope.
  void Unlock() AW_RELEASE() { lock_.unlock(); }
  void Lock() AW_ACQUIRE() { lock_.lock(); }

  void Wait(std::condition_variable& condition) { condition.wait(lock_); }
  // False when it is that late. By the wall clock: the thread sanitizer cannot follow another one.
  bool WaitUntil(std::condition_variable& condition, std::chrono::system_clock::time_point end) {
    return condition.wait_until(lock_, end) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace keelbase::internal
