// LogLine_test.cpp - how the program zarn reads log lines and times.
#include "../../tools/zarn/LogLine.h"

#include <gtest/gtest.h>

#include <string>

namespace zarn::tool {
namespace {

constexpr Micros kOneSecond = 1000000;
constexpr Micros kTime = 1706688902 * kOneSecond + 4711;  // 2024-01-31T08:15:02.004711

TEST(ParseLogLine, ReadsALineWithoutPlace) {
  LogLine line;
  ASSERT_TRUE(ParseLogLine(
      "2024-01-31T08:15:02.004711 | INFO     | main               | two | parts ", line));
  EXPECT_EQ(line.time, kTime);
  EXPECT_EQ(line.timeText, "2024-01-31T08:15:02.004711");
  EXPECT_EQ(line.level, "INFO");
  EXPECT_EQ(line.file, "");
  EXPECT_EQ(line.number, "");
  EXPECT_EQ(line.function, "main");
  EXPECT_EQ(line.message, "two | parts ");
}

TEST(ParseLogLine, ReadsALineWithPlace) {
  LogLine line;
  ASSERT_TRUE(
      ParseLogLine("2024-01-31T08:15:02.004711 | DEBUG    |           z.cpp[00042] | "
                   "operator[]         | m",
                   line));
  EXPECT_EQ(line.level, "DEBUG");
  EXPECT_EQ(line.file, "z.cpp");
  EXPECT_EQ(line.number, "00042");
  EXPECT_EQ(line.function, "operator[]");
  EXPECT_EQ(line.message, "m");
}

TEST(ParseLogLine, ColumnsMayBeEmptyOrOfAnyWidth) {
  LogLine line;
  ASSERT_TRUE(ParseLogLine("2024-01-31T08:15:02.004711 |          |  | ", line));
  EXPECT_TRUE(line.level.empty() && line.function.empty() && line.message.empty());
  ASSERT_TRUE(ParseLogLine("2024-01-31T08:15:02.004711 | A | [-0001] | f | m", line));
  EXPECT_EQ(line.file, "");
  EXPECT_EQ(line.number, "-0001");
  ASSERT_TRUE(ParseLogLine("2024-01-31T08:15:02.004711 | A | a[0]b[1234567] | f | m", line));
  EXPECT_EQ(line.file, "a[0]b");
  EXPECT_EQ(line.number, "1234567");
}

TEST(ParseLogLine, FunctionsThatLookABitLikeAPlaceAreNone) {
  LogLine line;
  for (const char* function : {"operator[]", "f[42]", "f[0004x]", "f[]", "]", "f[00-42]"}) {
    const std::string text =
        std::string("2024-01-31T08:15:02.004711 | A | ") + function + " | m | n";
    ASSERT_TRUE(ParseLogLine(text, line));
    EXPECT_EQ(line.function, function);
    EXPECT_EQ(line.message, "m | n");
    EXPECT_EQ(line.number, "");
  }
}

TEST(ParseLogLine, RefusesEverythingElse) {
  LogLine line;
  for (const char* text :
       {"", "message", "2024-01-31T08:15:02.004711", "2024-01-31T08:15:02.004711 | INFO | main",
        "2024-01-31 08:15:02.004711 | A | f | m", "2024-01-31T08:15:02,004711 | A | f | m",
        "2024-13-31T08:15:02.004711 | A | f | m", "2024-02-30T08:15:02.004711 | A | f | m",
        "2024-01-31T24:15:02.004711 | A | f | m", "2024-01-31T08:60:02.004711 | A | f | m",
        "2024-01-31T08:15:61.004711 | A | f | m", "2024-01-31T08:15:02.00471  | A | f | m",
        " 2024-01-31T08:15:02.004711 | A | f | m", "2024-01-31T08:15:02.004711| A | f | m",
        "2024-01-31T08:15:02.004711 | DEBUG | z.cpp[00042] | m"})
    EXPECT_FALSE(ParseLogLine(text, line)) << text;
}

TEST(ParseLogTime, KnowsTheCalendar) {
  Micros time = 0;
  ASSERT_TRUE(ParseLogTime("1970-01-01T00:00:00.000000", time));
  EXPECT_EQ(time, 0);
  ASSERT_TRUE(ParseLogTime("2000-02-29T00:00:00.000020 and more", time));
  EXPECT_EQ(time, 951782400 * kOneSecond + 20);
  ASSERT_TRUE(ParseLogTime("1969-12-31T23:59:59.500000", time));
  EXPECT_EQ(time, -500000);
  ASSERT_TRUE(ParseLogTime("2016-12-31T23:59:60.000000", time));  // a leap second
  EXPECT_EQ(time, 1483228800 * kOneSecond);
  EXPECT_FALSE(ParseLogTime("1900-02-29T00:00:00.000000", time));
}

TEST(ParseTimeOption, TakesTimesOfAnyPrecision) {
  constexpr Micros kDay = 1706659200 * kOneSecond;
  EXPECT_EQ(ParseTimeOption("2024-01-31", 0), kDay);
  EXPECT_EQ(ParseTimeOption("2024-01-31T08:15", 0), kTime - 2 * kOneSecond - 4711);
  EXPECT_EQ(ParseTimeOption("2024-01-31 08:15:02", 0), kTime - 4711);
  EXPECT_EQ(ParseTimeOption("2024-01-31T08:15:02Z", 0), kTime - 4711);
  EXPECT_EQ(ParseTimeOption("2024-01-31T08:15:02.5", 0), kTime - 4711 + kOneSecond / 2);
  EXPECT_EQ(ParseTimeOption("2024-01-31T08:15:02.004711", 0), kTime);
}

TEST(ParseTimeOption, TakesHowLongAgo) {
  EXPECT_EQ(ParseTimeOption("now", kTime), kTime);
  EXPECT_EQ(ParseTimeOption(" 90s ", kTime), kTime - 90 * kOneSecond);
  EXPECT_EQ(ParseTimeOption("10 min ago", kTime), kTime - 600 * kOneSecond);
  EXPECT_EQ(ParseTimeOption("10m", kTime), kTime - 600 * kOneSecond);
  EXPECT_EQ(ParseTimeOption("2 hours", kTime), kTime - 7200 * kOneSecond);
  EXPECT_EQ(ParseTimeOption("1 day ago", kTime), kTime - 86400 * kOneSecond);
  EXPECT_EQ(ParseTimeOption("3w", kTime), kTime - 3 * 604800 * kOneSecond);
}

TEST(ParseTimeOption, RefusesEverythingElse) {
  for (const char* text : {"",
                           " ",
                           "s",
                           "10",
                           "-5m",
                           "5 m ago ago",
                           "9999999s",
                           "5 eggs",
                           "ago",
                           "yesterday",
                           "2024",
                           "2024-01",
                           "2024-1-31",
                           "2024-01-31T",
                           "2024-01-31T08",
                           "2024-01-31T08:15:02.",
                           "2024-01-31T08:15:02.1234567",
                           "2024-01-31T08:15.5",
                           "2024-01-31T08:15:02+01:00",
                           "2023-02-29"})
    EXPECT_FALSE(ParseTimeOption(text, kTime)) << text;
}

}  // namespace
}  // namespace zarn::tool
