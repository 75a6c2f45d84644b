// CAWSingleton.cpp - the clean-up chain, see CAWSingleton.h.
#include "keelbase/CAWSingleton.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
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
    links_.push_back({link, ::getpid()});
  }

  // What is deleted earlier, or was never made whole.
  void Remove(const CAWCleanUpBase* link) {
    const internal::MutexLock lock(mutex_);
    std::erase_if(links_, [link](const Made& made) { return made.link == link; });
  }

  bool HasRun() {
    const internal::MutexLock lock(mutex_);
    return hasRun_;
  }

 private:
  struct Made {
    CAWCleanUpBase* link;
    pid_t process;
  };

  // Links that are added while the chain runs (a destructor that asks for a singleton) stay.
  void Run() {
    {
      const internal::MutexLock lock(mutex_);
      hasRun_ = true;
    }
    internal::StopThreads();
    while (CAWCleanUpBase* link = TakeLast()) delete link;
  }

  // One at a time: the end of a link may delete an earlier one. Those that a forked child has from
  // its parent are the parent's to delete.
  CAWCleanUpBase* TakeLast() {
    const internal::MutexLock lock(mutex_);
    const auto last =
        std::find_if(links_.rbegin(), links_.rend(),
                     [own = ::getpid()](const Made& made) { return made.process == own; });
    if (last == links_.rend()) return nullptr;
    CAWCleanUpBase* link = last->link;
    links_.erase(std::next(last).base());
    return link;
  }

  internal::Mutex mutex_;
  std::vector<Made> links_ AW_GUARDED_BY(mutex_);
  bool armed_ AW_GUARDED_BY(mutex_) = false;
  bool hasRun_ AW_GUARDED_BY(mutex_) = false;
};

CAWCleanUpBase::CAWCleanUpBase() { CleanUpChain::Instance().Add(this); }
CAWCleanUpBase::~CAWCleanUpBase() { CleanUpChain::Instance().Remove(this); }

bool CAWCleanUpBase::HasRun() { return CleanUpChain::Instance().HasRun(); }

}  // namespace keelbase
