// CAWTimer.h - timers that fire on a platform thread.
#pragma once

#include <cstdint>
#include <memory>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWTimeValue.h"

namespace keelbase {

namespace internal {
class Timer;
}
class CAWTimerWrapperID;

class KEELBASE_API CAWTimerWrapperIDSink {
 public:
  virtual void OnTimer(CAWTimerWrapperID* timer) = 0;
  virtual ~CAWTimerWrapperIDSink() = default;
};

// One timer. Steady clock, so setting the wall clock does not matter; a late tick is not followed
// by a burst: the next one comes an interval after the late one at the latest.
//
// Threads: fires on the thread that scheduled it when that is a platform thread, else on the
// network thread. One timer object is used by one thread at a time. Cancelling or destroying it
// inside its own callback is allowed. Elsewhere both wait for a callback that is just running on
// another thread, and so does scheduling it again; once they have returned, none of the earlier
// schedule runs and none comes. Should that callback schedule the timer again meanwhile, this has
// no effect. When a static object cancels the timer, exit() waits for a callback that is running:
// that callback must not wait for the thread that has called exit().
class KEELBASE_API CAWTimerWrapperID {
 public:
  CAWTimerWrapperID();
  ~CAWTimerWrapperID();  // cancels
  CAWTimerWrapperID(const CAWTimerWrapperID&) = delete;
  CAWTimerWrapperID& operator=(const CAWTimerWrapperID&) = delete;

  // Calls sink->OnTimer(this) every `interval`, `count` times (0: until cancelled), first after one
  // interval. Replaces an earlier schedule. An interval below a microsecond counts as one
  // microsecond. 0; 10001 for a null sink or when there is no thread to fire it (what was scheduled
  // stays then).
  AWResult Schedule(CAWTimerWrapperIDSink* sink, const CAWTimeValue& interval,
                    std::uint32_t count = 0);

  AWResult Cancel();  // always 0

  bool IsScheduled() const;  // more calls are to come

 private:
  std::unique_ptr<internal::Timer> timer_;
};

}  // namespace keelbase
