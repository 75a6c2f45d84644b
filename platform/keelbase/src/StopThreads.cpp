// StopThreads.cpp - see StopThreads.h.
#include "StopThreads.h"

#include <unistd.h>

#include <utility>

#include "ThreadSlots.h"
#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {
namespace {

// What this thread was doing on them is over, and so is what waited for it to return.
void EndLoopsThatExitWasCalledOn() {
  bool inherited = true;
  while (std::exchange(inherited, false)) {
    ForEachThread([&](ThreadSlot&, EventLoop& served) {
      if (!served.IsHeldHere()) return;
      ForEachThread([&](ThreadSlot&, EventLoop& loop) {
        if (loop.InheritFrom(served)) inherited = true;
      });
    });
  }
  ForEachThread([](ThreadSlot& slot, EventLoop& loop) {
    if (!loop.IsHeldHere()) return;
    if (slot.started.joinable()) slot.started.detach();
    loop.End();
  });
}

// What a forked child has of its parent's: neither may be waited for nor touch what both share.
void LeaveThreadsOfParent() {
  for (ThreadSlot& slot : TheThreadSlots().all) {
    CAWThread* thread = slot.thread.load(std::memory_order_acquire);
    if (thread != nullptr && slot.process != ::getpid()) thread->GetLoop().LeaveToParent();
  }
}

}  // namespace

// Threads that are waited for may themselves wait for a loop that nobody will serve any more: those
// loops end first.
void StopThreads() {
  LeaveThreadsOfParent();
  { const MutexLock wait(TheThreadSlots().mutex); }  // for one that is just being started
  EndLoopsThatExitWasCalledOn();
  ForEachThread([](ThreadSlot& slot, EventLoop& loop) {
    if (slot.started.joinable()) {
      loop.Stop();
    } else {
      loop.End();
    }
  });
  ForEachThread([](ThreadSlot& slot, EventLoop& loop) {
    if (!slot.started.joinable()) return;
    slot.started.join();
    loop.End();
  });
}

}  // namespace keelbase::internal
