// ManualClock_test.cpp - time that a test moves.
#include "keelbase/internal/ManualClock.h"

#include <gtest/gtest.h>

namespace keelbase::internal {
namespace {

TEST(ManualClock, TimeStandsStillUntilItIsMoved) {
  ManualClock clock;
  const Clock::Point before = Clock::Now();
  EXPECT_EQ(Clock::Now(), before);
  clock.Advance(std::chrono::hours(5));
  EXPECT_EQ(Clock::Now() - before, std::chrono::hours(5));
}

TEST(ManualClock, RealTimeComesBack) {
  const Clock::Point before = Clock::Now();
  { ManualClock().Advance(std::chrono::hours(5)); }
  EXPECT_GE(Clock::Now(), before);
  EXPECT_LT(Clock::Now(), before + std::chrono::hours(1));
}

}  // namespace
}  // namespace keelbase::internal
