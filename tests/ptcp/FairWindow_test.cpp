// FairWindow_test.cpp - the bound of what is in flight, with a path made up of numbers.
#include "FairWindow.h"

#include <gtest/gtest.h>

namespace ptcp::test {
namespace {

constexpr std::uint64_t kTick = 1000000;
constexpr std::uint64_t kPacket = 1472;
constexpr std::uint64_t kFull = 200 * kPacket;

class FairWindowTest : public ::testing::Test {
 protected:
  // One round trip, in which `inFlight` bytes arrive.
  void Pass(std::uint64_t inFlight, std::uint64_t rttMs, bool lost = false) {
    now_ += rttMs * kTick;
    delivered_ += inFlight;
    window_.Update({inFlight, delivered_, kPacket, 20 * kTick, rttMs * kTick, variation_, lost},
                   now_);
  }
  void PassFor(std::uint64_t ms, std::uint64_t inFlight, std::uint64_t rttMs) {
    for (const std::uint64_t end = now_ + ms * kTick; now_ < end;) Pass(inFlight, rttMs);
  }
  std::uint64_t Window() const { return window_.Room(0); }

  FairWindow window_;
  std::uint64_t variation_ = kTick;
  std::uint64_t now_ = kTick;
  std::uint64_t delivered_ = 0;
};

TEST_F(FairWindowTest, ThereIsNoBoundAtFirst) {
  PassFor(1000, kFull, 40);
  EXPECT_EQ(Window(), UINT64_MAX);
}

TEST_F(FairWindowTest, LossOnAPathWithoutAQueueIsNoReason) {
  for (int rounds = 0; rounds < 100; ++rounds) Pass(kFull, 21, true);
  EXPECT_EQ(Window(), UINT64_MAX);
}

TEST_F(FairWindowTest, LossWhileTimesVaryMuchIsNoReason) {
  variation_ = 10 * kTick;
  for (int rounds = 0; rounds < 100; ++rounds) Pass(kFull, 40, true);
  EXPECT_EQ(Window(), UINT64_MAX);
}

TEST_F(FairWindowTest, LossWhilePacketsWaitHalvesWhatIsInFlight) {
  PassFor(1000, kFull, 45);
  Pass(kFull, 45, true);
  EXPECT_EQ(Window(), kFull / 2);
}

TEST_F(FairWindowTest, WhatThePathCarriesWithoutAQueueIsNeverTakenAway) {
  PassFor(1000, kFull, 32);
  Pass(kFull, 32, true);
  EXPECT_NEAR(static_cast<double>(Window()), kFull * 20.0 / 32, kPacket);
}

TEST_F(FairWindowTest, AFewPacketsAreAlwaysAllowed) {
  for (int rounds = 0; rounds < 100; ++rounds) Pass(kPacket, 60, true);
  EXPECT_EQ(Window(), 10 * kPacket);
}

TEST_F(FairWindowTest, RoomIsWhatTheWindowHasLeft) {
  PassFor(1000, kFull, 45);
  Pass(kFull, 45, true);
  EXPECT_EQ(window_.Room(kFull / 2 - 1), 1U);
  EXPECT_EQ(window_.Room(kFull), 0U);
}

TEST_F(FairWindowTest, ItIsBackWhereItWasAfterTheTimeThatCubicTakes) {
  PassFor(1000, kFull, 45);
  Pass(kFull, 45, true);
  PassFor(5000, kFull, 45);  // cbrt(100 / 0.4) seconds are 6.3
  EXPECT_LT(Window(), kFull);
  PassFor(2000, kFull, 45);
  EXPECT_GE(Window(), kFull);
}

TEST_F(FairWindowTest, ItGrowsFasterOnceThePathIsFree) {
  PassFor(1000, kFull, 45);
  Pass(kFull, 45, true);
  PassFor(200, kFull, 21);
  EXPECT_GE(Window(), kFull);
}

TEST_F(FairWindowTest, AFreePathThatIsNotUsedDoesNotCount) {
  PassFor(1000, kFull, 45);
  Pass(kFull, 45, true);
  PassFor(200, kPacket, 21);
  EXPECT_LT(Window(), kFull);
}

}  // namespace
}  // namespace ptcp::test
