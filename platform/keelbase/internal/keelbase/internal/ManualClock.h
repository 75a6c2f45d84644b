// ManualClock.h - time that stands still until a test moves it.
#pragma once

#include "keelbase/internal/Clock.h"

namespace keelbase::internal {

// While one exists, every timer of the process reads it. Advance() fires nothing by itself: drive
// the loop with CAWThread::TEST_RunReady().
class ManualClock {
 public:
  ManualClock() : now_(Clock::Now().time_since_epoch()) { Clock::Set(now_); }
  ~ManualClock() { Clock::Set({}); }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  void Advance(std::chrono::steady_clock::duration step) { Clock::Set(now_ += step); }

 private:
  std::chrono::steady_clock::duration now_;
};

}  // namespace keelbase::internal
