// CAWReferenceControl.cpp - see CAWReferenceControl.h.
#include "keelbase/CAWReferenceControl.h"

#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/ThreadName.h"

namespace keelbase {

// Whoever works on a stopped loop in place stands for its thread.
std::uint64_t CAWEnsureSingleThread::CurrentThread() {
  const internal::EventLoop* loop = internal::EventLoop::Current();
  const std::uint64_t number = loop != nullptr ? loop->GetThreadNumber() : 0;
  return number != 0 ? number : internal::CurrentThreadNumber();
}

void CAWEnsureSingleThread::Mismatch(const char* what, std::uint64_t owner,
                                     std::uint64_t caller) const {
  if (owner == 0 && owner_.compare_exchange_strong(owner, caller, std::memory_order_relaxed))
    return;
  if (owner == caller) return;
#ifdef NDEBUG
  internal::TraceWrongThread(what, owner, caller);
#else
  internal::StopForWrongThread(what, owner, caller);
#endif
}

}  // namespace keelbase
