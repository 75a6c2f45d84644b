// RepeatLimiter_test.cpp - the limit on repeated trace lines, with a clock that the test sets.
#include "keelbase/internal/RepeatLimiter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace keelbase::internal {
namespace {

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

class RepeatLimiterTest : public testing::Test {
 protected:
  // What is written when `text` is offered `times` times at one moment.
  Lines Offer(const std::string& text, int times = 1) {
    Lines lines;
    for (int i = 0; i < times; ++i) {
      limiter_.Offer(text, now_, [&](std::string_view line) { lines.emplace_back(line); });
    }
    return lines;
  }

  RepeatLimiter limiter_;
  RepeatLimiter::Clock::time_point now_{std::chrono::hours(1)};
};

TEST_F(RepeatLimiterTest, FiveLinesOfATextPassInASecond) {
  EXPECT_EQ(Offer("a", 100), Lines(5, "a"));
  now_ += milliseconds(999);
  EXPECT_EQ(Offer("a"), Lines());
}

TEST_F(RepeatLimiterTest, TextPassesAgainAfterTheSecondWithTheCountOfTheRest) {
  Offer("a", 100);
  now_ += milliseconds(1000);
  EXPECT_EQ(Offer("a"), (Lines{"a (95 more times)", "a"}));
  EXPECT_EQ(Offer("a", 10), Lines(4, "a"));
}

TEST_F(RepeatLimiterTest, TextThatKeepsWithinTheLimitIsNeverCounted) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Offer("a", 5), Lines(5, "a"));
    now_ += milliseconds(1000);
  }
}

TEST_F(RepeatLimiterTest, OneTextDoesNotHoldBackAnother) {
  Offer("a", 100);
  EXPECT_EQ(Offer("b"), Lines{"b"});
  EXPECT_EQ(Offer(""), Lines{""});
}

TEST_F(RepeatLimiterTest, AnyLaterTextBringsTheCountOfAnEarlierOne) {
  Offer("a", 7);
  now_ += milliseconds(1500);
  EXPECT_EQ(Offer("b"), (Lines{"a (2 more times)", "b"}));
  EXPECT_EQ(Offer("c"), Lines{"c"});
}

TEST_F(RepeatLimiterTest, TextsThatFindNoPlaceShareFiveLinesASecond) {
  constexpr int kOthers = 50;
  const auto offerAll = [this] {
    Lines lines;
    for (int i = 0; i < int{RepeatLimiter::kTexts} + kOthers; ++i) {
      for (const std::string& line : Offer(std::to_string(i))) lines.push_back(line);
    }
    return lines;
  };
  EXPECT_EQ(offerAll().size(), RepeatLimiter::kTexts + 5);
  for (int i = 0; i < 99; ++i) offerAll();
  now_ += milliseconds(1000);
  const Lines lines = Offer("0");
  EXPECT_EQ(lines.size(), RepeatLimiter::kTexts + 2);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "0 (95 more times)"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "other texts (4995 more times)"), 1);
}

TEST_F(RepeatLimiterTest, TextThatFoundNoPlaceHasOneOnceASecondIsOver) {
  for (std::size_t i = 0; i < RepeatLimiter::kTexts; ++i) Offer(std::to_string(i));
  Offer("a", 5);
  EXPECT_EQ(Offer("b"), Lines());
  now_ += milliseconds(1000);
  EXPECT_EQ(Offer("c", 100), (Lines{"other texts (1 more times)", "c", "c", "c", "c", "c"}));
  EXPECT_EQ(Offer("b", 100), Lines(5, "b"));
}

}  // namespace
}  // namespace keelbase::internal
