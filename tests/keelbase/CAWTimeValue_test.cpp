// CAWTimeValue_test.cpp - spans of time.
#include "keelbase/CAWTimeValue.h"

#include <gtest/gtest.h>

#include <cmath>

namespace keelbase {
namespace {

using namespace std::chrono_literals;
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

void ExpectParts(CAWTimeValue value, std::int64_t sec, std::int64_t usec) {
  EXPECT_EQ(value.GetSec(), sec);
  EXPECT_EQ(value.GetUsec(), usec);
}

TEST(CAWTimeValue, KeepsSecondsAndMicroseconds) {
  ExpectParts(CAWTimeValue(), 0, 0);
  ExpectParts(CAWTimeValue(3), 3, 0);
  ExpectParts(CAWTimeValue(3, 999999), 3, 999999);
}

TEST(CAWTimeValue, CarriesMicrosecondsIntoSecondsBothWays) {
  ExpectParts(CAWTimeValue(1, 2500000), 3, 500000);
  ExpectParts(CAWTimeValue(0, 1000000), 1, 0);
  ExpectParts(CAWTimeValue(0, -500000), -1, 500000);
  ExpectParts(CAWTimeValue(1, -1), 0, 999999);
  ExpectParts(CAWTimeValue(-2, 0), -2, 0);
}

TEST(CAWTimeValue, AddsAndSubtracts) {
  EXPECT_EQ(CAWTimeValue(1, 600000) + CAWTimeValue(1, 600000), CAWTimeValue(3, 200000));
  EXPECT_EQ(CAWTimeValue(3, 200000) - CAWTimeValue(1, 600000), CAWTimeValue(1, 600000));
  CAWTimeValue value(1);
  value += CAWTimeValue(0, 5);
  value -= CAWTimeValue(2);
  EXPECT_EQ(value, CAWTimeValue(-1, 5));
}

TEST(CAWTimeValue, Compares) {
  const CAWTimeValue small(1, 999999);
  const CAWTimeValue large(2, 0);
  EXPECT_TRUE(small < large && small <= large && large > small && large >= small);
  EXPECT_FALSE(large < small || large <= small || small > large || small >= large);
  EXPECT_TRUE(small <= small && small >= small && small == CAWTimeValue(0, 1999999));
  EXPECT_TRUE(small != large);
  EXPECT_LT(CAWTimeValue(0, -1), CAWTimeValue());
}

TEST(CAWTimeValue, ConvertsFromAndToChrono) {
  ExpectParts(CAWTimeValue(1500ms), 1, 500000);
  ExpectParts(CAWTimeValue(2h), 7200, 0);
  ExpectParts(CAWTimeValue(1999ns), 0, 1);
  ExpectParts(CAWTimeValue(std::chrono::duration<double>(0.25)), 0, 250000);
  EXPECT_EQ(CAWTimeValue(1, 5).ToDuration(), 1000005us);
  EXPECT_EQ(CAWTimeValue(CAWTimeValue(-3, 7).ToDuration()), CAWTimeValue(-3, 7));
}

TEST(CAWTimeValue, TakesEveryValueOfItsRangeWhateverItIsMadeOf) {
  using Frames = std::chrono::duration<std::int64_t, std::ratio<1, 60>>;
  ExpectParts(CAWTimeValue(Frames(200000000000000)), 3333333333333, 333333);
  ExpectParts(CAWTimeValue(Frames(-1)), -1, 983334);
  ExpectParts(CAWTimeValue(9223372036855, -1000000), 9223372036854, 0);
}

TEST(CAWTimeValue, StopsAtTheEndsOfTheRange) {
  const CAWTimeValue longest(std::chrono::microseconds::max());
  const CAWTimeValue shortest(std::chrono::microseconds::min());
  EXPECT_EQ(CAWTimeValue(kMax), longest);
  EXPECT_EQ(CAWTimeValue(kMin), shortest);
  EXPECT_EQ(CAWTimeValue(kMax / 1000000, kMax), longest);
  EXPECT_EQ(CAWTimeValue(kMin / 1000000, kMin), shortest);
  EXPECT_EQ(CAWTimeValue(std::chrono::hours(kMax)), longest);
  EXPECT_EQ(CAWTimeValue(std::chrono::seconds(kMin)), shortest);
  EXPECT_EQ(longest + CAWTimeValue(0, 1), longest);
  EXPECT_EQ(shortest - CAWTimeValue(0, 1), shortest);
  EXPECT_EQ(CAWTimeValue() - shortest, longest);
  EXPECT_EQ(shortest + CAWTimeValue(0, -1), shortest);
  EXPECT_EQ(CAWTimeValue(std::chrono::duration<double>(9223372036854.7754)), longest);
  EXPECT_EQ(CAWTimeValue(std::chrono::duration<float>(-9223372036855.F)), shortest);
  EXPECT_EQ(CAWTimeValue(std::chrono::duration<float, std::ratio<86400>>(1e38F)), longest);
  EXPECT_EQ(CAWTimeValue(std::chrono::duration<double>(std::nan(""))), CAWTimeValue());
  ExpectParts(shortest, kMin / 1000000 - 1, kMin % 1000000 + 1000000);
}

}  // namespace
}  // namespace keelbase
