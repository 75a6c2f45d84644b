// Clock.cpp - see Clock.h.
#include "keelbase/internal/Clock.h"

#include <atomic>

namespace keelbase::internal {

namespace {
std::atomic<std::chrono::steady_clock::rep> manualNow{0};
}  // namespace

Clock::Point Clock::Now() {
  const auto manual = manualNow.load(std::memory_order_relaxed);
  if (manual != 0) return Point(std::chrono::steady_clock::duration(manual));
  return std::chrono::steady_clock::now();
}

void Clock::Set(std::chrono::steady_clock::duration sinceEpoch) {
  manualNow.store(sinceEpoch.count(), std::memory_order_relaxed);
}

}  // namespace keelbase::internal
