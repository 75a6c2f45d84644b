// Clock.h - the clock that timers and lingers read.
#pragma once

#include <algorithm>
#include <chrono>

#include "keelbase/CAWDefines.h"

namespace keelbase::internal {

// The steady clock, unless a test drives it by hand (ManualClock.h).
class KEELBASE_API Clock {
 public:
  using Point = std::chrono::steady_clock::time_point;
  static Point Now();

  // Can be added to any time of this clock, and never passes.
  static constexpr std::chrono::microseconds kMaxWait = std::chrono::hours(100 * 365 * 24);
  // The end of a wait that begins now; one below 0 is over at once.
  static Point After(std::chrono::microseconds wait) {
    return Now() + std::clamp(wait, std::chrono::microseconds(0), kMaxWait);
  }

 private:
  friend class ManualClock;
  static void Set(std::chrono::steady_clock::duration sinceEpoch);  // zero: real time again
};

}  // namespace keelbase::internal
