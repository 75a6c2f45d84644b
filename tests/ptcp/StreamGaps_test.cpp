// StreamGaps_test.cpp - which packets are let through, by the gaps that they leave.
#include "StreamGaps.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace ptcp {
namespace {

using Frames = std::vector<std::uint8_t>;

void AppendNumber(Frames& to, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    to.push_back(static_cast<std::uint8_t>((shift == 24 ? 0x80U : 0U) | value >> shift));
}

// A STREAM frame.
void AppendStretch(Frames& to, std::uint32_t offset, std::uint8_t length) {
  to.insert(to.end(), {0x0e, 0});
  AppendNumber(to, offset);
  to.push_back(length);
  to.insert(to.end(), length, 'x');
}
Frames Stretch(std::uint32_t offset, std::uint8_t length) {
  Frames frames;
  AppendStretch(frames, offset, length);
  return frames;
}

class StreamGapsTest : public ::testing::Test {
 protected:
  // `count` bytes with one missing before each.
  void MakeGaps(std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i) ASSERT_TRUE(Accept(Stretch(2 * i + 1, 1))) << i;
  }
  bool Accept(const Frames& frames) { return gaps.Accept(1, frames); }
  static constexpr auto kMaxGaps = static_cast<std::uint32_t>(StreamGaps::kMaxGaps);
  StreamGaps gaps;
};

TEST_F(StreamGapsTest, BytesInOrderLeaveNone) {
  for (std::uint32_t i = 0; i < 2000; ++i) ASSERT_TRUE(Accept(Stretch(10 * i, 10)));
  EXPECT_EQ(gaps.Count(), 0U);
}

TEST_F(StreamGapsTest, EachStretchThatLiesAloneLeavesOne) {
  ASSERT_TRUE(Accept(Stretch(10, 5)));
  ASSERT_TRUE(Accept(Stretch(20, 5)));
  EXPECT_EQ(gaps.Count(), 2U);
}

TEST_F(StreamGapsTest, WhatTouchesOrOverlapsAnotherLeavesNoneMore) {
  ASSERT_TRUE(Accept(Stretch(10, 5)));
  for (const Frames& frames : {Stretch(10, 5), Stretch(15, 5), Stretch(5, 5), Stretch(12, 20),
                               Stretch(3, 40), Stretch(4, 1)}) {
    ASSERT_TRUE(Accept(frames));
    EXPECT_EQ(gaps.Count(), 1U);
  }
}

TEST_F(StreamGapsTest, AStretchThatFillsGapsClosesThem) {
  MakeGaps(10);
  ASSERT_TRUE(Accept(Stretch(4, 3)));  // two of them
  EXPECT_EQ(gaps.Count(), 8U);
  ASSERT_TRUE(Accept(Stretch(0, 1)));
  EXPECT_EQ(gaps.Count(), 7U);
  ASSERT_TRUE(Accept(Stretch(0, 100)));
  EXPECT_EQ(gaps.Count(), 0U);
}

TEST_F(StreamGapsTest, OneTooManyIsNotLetThroughUntilThereIsRoomAgain) {
  MakeGaps(kMaxGaps);
  const Frames more = Stretch(2 * kMaxGaps + 1, 1);
  EXPECT_FALSE(Accept(more));
  EXPECT_FALSE(Accept(more));
  EXPECT_EQ(gaps.Count(), StreamGaps::kMaxGaps);
  EXPECT_TRUE(Accept(Stretch(0, 1)));
  EXPECT_TRUE(Accept(more));
}

TEST_F(StreamGapsTest, WhatLeavesNoGapIsAlwaysLetThrough) {
  MakeGaps(kMaxGaps);
  EXPECT_TRUE(Accept(Stretch(1, 1)));
  EXPECT_TRUE(Accept(Stretch(2 * kMaxGaps, 1)));  // behind the last
  EXPECT_TRUE(Accept(Stretch(0, 1)));
}

TEST_F(StreamGapsTest, APacketIsNotedWholeOrNotAtAll) {
  MakeGaps(kMaxGaps - 1);
  Frames two = Stretch(0, 1);
  AppendStretch(two, 10000, 1);
  AppendStretch(two, 20000, 1);
  EXPECT_FALSE(Accept(two));
  EXPECT_EQ(gaps.Count(), StreamGaps::kMaxGaps - 1);
  EXPECT_TRUE(Accept(Stretch(0, 1)));
  EXPECT_TRUE(Accept(two));
  EXPECT_EQ(gaps.Count(), StreamGaps::kMaxGaps);
}

TEST_F(StreamGapsTest, StretchesAreFoundAmongAllOtherFrames) {
  Frames frames = {0x01, 0x02, 9, 1, 0, 3, 0x10, 5};  // ping, acknowledgement, a limit
  AppendStretch(frames, 100, 3);
  frames.insert(frames.end(), {0x06, 0, 2, 1, 2, 0x00, 0x0c, 0, 0x40, 200, 'x'});  // to the end
  ASSERT_TRUE(Accept(frames));
  EXPECT_EQ(gaps.Count(), 2U);
  ASSERT_TRUE(Accept(Frames{0x08, 0, 'x', 'y'}));  // at the beginning
  EXPECT_EQ(gaps.Count(), 2U);
}

TEST_F(StreamGapsTest, APacketThatComesTooLateIsNotLetThrough) {
  const Frames ping = {0x01};
  ASSERT_TRUE(gaps.Accept(StreamGaps::kMaxPacketsLate + 5, ping));
  EXPECT_TRUE(gaps.Accept(5, ping));
  EXPECT_FALSE(gaps.Accept(4, ping));
}

TEST_F(StreamGapsTest, APacketThatIsNotLetThroughMakesNoOtherTooLate) {
  MakeGaps(kMaxGaps);
  EXPECT_FALSE(gaps.Accept(10 * StreamGaps::kMaxPacketsLate, Stretch(10 * kMaxGaps, 1)));
  EXPECT_TRUE(Accept(Stretch(0, 1)));
}

TEST_F(StreamGapsTest, AnEndWithoutBytesIsNoStretch) {
  ASSERT_TRUE(Accept(Stretch(100, 0)));
  EXPECT_EQ(gaps.Count(), 0U);
}

}  // namespace
}  // namespace ptcp
