// WallClock.cpp - see WallClock.h.
#include "WallClock.h"

#include <atomic>

namespace zarn::utils {

namespace {

timeval GetSystemTime() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return now;
}

std::atomic<timeval (*)()> wallClock{GetSystemTime};

}  // namespace

timeval GetWallTime() { return wallClock.load(std::memory_order_relaxed)(); }

void TEST_SetWallClock(timeval (*clock)()) {
  wallClock.store(clock != nullptr ? clock : GetSystemTime, std::memory_order_relaxed);
}

}  // namespace zarn::utils
