// CAWSingleton.h - process-wide objects that are made on first use and destroyed at exit.
#pragma once

#include <atomic>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWThreadManager.h"

namespace keelbase {

// A link of the clean-up chain: whatever derives from it is deleted at process exit, in the reverse
// order of construction. The chain begins by stopping the threads that the thread manager has
// started, so no callback of theirs meets what is gone. Made by `new` only, and may be deleted
// earlier, also by the end of another link. One made after the chain has run is never deleted; its
// owner keeps it reachable. A forked child that calls exit() deletes those only that it has made.
class KEELBASE_API CAWCleanUpBase {
 public:
  static bool HasRun();  // the chain has begun to run

 protected:
  CAWCleanUpBase();
  virtual ~CAWCleanUpBase();
  CAWCleanUpBase(const CAWCleanUpBase&) = delete;
  CAWCleanUpBase& operator=(const CAWCleanUpBase&) = delete;

 private:
  friend class CleanUpChain;
};

// The process-wide T, made on first Instance() under the thread manager's singleton mutex and
// destroyed by the clean-up chain. Instance() after that makes another one that stays to the end.
// Instantiate it in one source file of one library (behind a function that is not inline), so that
// the object exists once in the process.
template <class T>
class CAWSingletonT : public CAWCleanUpBase {
 public:
  static T* Instance() {
    CAWSingletonT* made = instance_.load(std::memory_order_acquire);
    if (made == nullptr) made = Make();
    return &made->object_;
  }

  // False for null and for one whose end has begun.
  static bool IsInstance(const T* object) {
    const CAWSingletonT* made = instance_.load(std::memory_order_acquire);
    return made != nullptr && &made->object_ == object;
  }

 private:
  CAWSingletonT() = default;
  ~CAWSingletonT() override { instance_.store(nullptr, std::memory_order_release); }

  static CAWSingletonT* Make() {
    // Unlocks also when the constructor of T throws.
    struct Lock {
      ~Lock() {
        if (locked) mutex.UnLock();
      }
      CAWMutexThread& mutex = CAWThreadManager::Instance()->GetSingletonMutex();
      const bool locked = mutex.Lock() == 0;
    } const lock;
    CAWSingletonT* made = instance_.load(std::memory_order_relaxed);
    if (made == nullptr) {
      made = new CAWSingletonT;
      instance_.store(made, std::memory_order_release);
    }
    return made;
  }

  inline static std::atomic<CAWSingletonT*> instance_{nullptr};
  T object_;
};

}  // namespace keelbase
