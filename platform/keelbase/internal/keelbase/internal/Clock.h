// Clock.h - the clock that timers and lingers read.
#pragma once

#include <chrono>

#include "keelbase/CAWDefines.h"

namespace keelbase::internal {

// The steady clock, unless a test drives it by hand (ManualClock.h).
class KEELBASE_API Clock {
 public:
  using Point = std::chrono::steady_clock::time_point;
  static Point Now();

 private:
  friend class ManualClock;
  static void Set(std::chrono::steady_clock::duration sinceEpoch);  // zero: real time again
};

}  // namespace keelbase::internal
