// CAWSingleton.cpp - the clean-up chain, see CAWSingleton.h.
#include "keelbase/CAWSingleton.h"

#include <cstdlib>
#include <vector>

#include "StopThreads.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"

namespace keelbase {

class CleanUpChain {
 public:
  static CleanUpChain& Instance() { return internal::Immortal<CleanUpChain>(); }

  void Add(CAWCleanUpBase* link) {
    const internal::MutexLock lock(mutex_);
    if (hasRun_) return;  // its owner keeps it
    if (!armed_) std::atexit([] { Instance().Run(); });
    armed_ = true;
    links_.push_back(link);
  }

  // What is deleted earlier, or was never made whole.
  void Remove(const CAWCleanUpBase* link) {
    const internal::MutexLock lock(mutex_);
    std::erase(links_, link);
  }

  bool HasRun() {
    const internal::MutexLock lock(mutex_);
    return hasRun_;
  }

 private:
  // Links that are added while the chain runs (a destructor that asks for a singleton) stay.
  void Run() {
    {
      const internal::MutexLock lock(mutex_);
      hasRun_ = true;
    }
    internal::StopThreads();
    while (CAWCleanUpBase* link = TakeLast()) delete link;
  }

  // One at a time: the end of a link may delete an earlier one.
  CAWCleanUpBase* TakeLast() {
    const internal::MutexLock lock(mutex_);
    if (links_.empty()) return nullptr;
    CAWCleanUpBase* link = links_.back();
    links_.pop_back();
    return link;
  }

  internal::Mutex mutex_;
  std::vector<CAWCleanUpBase*> links_ AW_GUARDED_BY(mutex_);
  bool armed_ AW_GUARDED_BY(mutex_) = false;
  bool hasRun_ AW_GUARDED_BY(mutex_) = false;
};

CAWCleanUpBase::CAWCleanUpBase() { CleanUpChain::Instance().Add(this); }
CAWCleanUpBase::~CAWCleanUpBase() { CleanUpChain::Instance().Remove(this); }

bool CAWCleanUpBase::HasRun() { return CleanUpChain::Instance().HasRun(); }

}  // namespace keelbase
