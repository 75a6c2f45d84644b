// LogConversions_test.cpp - log messages that are unusual: %n, arguments by position, cuts, and the
// bytes of a line beside those of the plain way to make them.
#include "LogConversions.h"

#include <gnu/libc-version.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "LogTest.h"

// Much here is what the compiler warns of.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace zarn::test {
namespace {

constexpr std::size_t kLineSize = 4095;
constexpr const char* kStart = "2024-01-31T08:15:02.004711 | INFO     | f                  | ";

// "%w8d" is a conversion from version 2.38 of glibc on.
bool KnowsWidthsInBits() {
  int major = 0;
  int minor = 0;
  std::sscanf(::gnu_get_libc_version(), "%d.%d", &major, &minor);
  return major > 2 || (major == 2 && minor >= 38);
}

class LogConversions : public ::testing::Test {
 protected:
  template <class... Args>
  std::string Print(const std::string& format, Args... args) {
    file_.logger.Print("INFO", "f", format.c_str(), args...);
    return file_.Take();
  }
  // Only the message, without its newline.
  template <class... Args>
  std::string Message(const std::string& format, Args... args) {
    std::string line = Print(format, args...);
    EXPECT_EQ(line.substr(0, std::strlen(kStart)), kStart);
    EXPECT_EQ(line.back(), '\n');
    line.pop_back();
    return line.substr(std::strlen(kStart));
  }
  // Text before the message such that `size` bytes of the message are kept.
  static std::string Padding(std::size_t size) {
    return std::string(kLineSize - std::strlen(kStart) - size, 'x');
  }

  FixedTime time_;
  FileLogger file_;
};

TEST_F(LogConversions, CountsAreConsumedAndNotWritten) {
  int count = 77;
  const char* formats[] = {"[%d%n%s]",  "[%d%hn%s]", "[%d%hhn%s]", "[%d%ln%s]", "[%d%lln%s]",
                           "[%d%5n%s]", "[%d%-n%s]", "[%d%.3n%s]", "[%d%jn%s]", "[%d%'n%s]"};
  for (const char* format : formats)
    EXPECT_EQ(Message(format, 1, &count, "two"), "[1two]") << format;
  EXPECT_EQ(count, 77);
}

TEST_F(LogConversions, CountsWithWidthsFromArgumentsConsumeTheseToo) {
  int count = 77;
  EXPECT_EQ(Message("[%d%*n%s]", 1, 9, &count, "two"), "[1two]");
  EXPECT_EQ(Message("[%d%-*n%s]", 1, -9, &count, "two"), "[1two]");
  EXPECT_EQ(Message("[%d%.*n%s]", 1, 9, &count, "two"), "[1two]");
  EXPECT_EQ(Message("[%d%*.*n%s]", 1, 9, 3, &count, "two"), "[1two]");
  EXPECT_EQ(count, 77);
}

TEST_F(LogConversions, SeveralCountsAndNothingElse) {
  int a = 1;
  int b = 2;
  EXPECT_EQ(Message("%n%n", &a, &b), "");
  EXPECT_EQ(Message("%n%d%n%f%n", &a, 4, &b, 0.5, &a), "40.500000");
  EXPECT_EQ(Message("%%n%d", 5), "%n5");
  EXPECT_EQ(a + b, 3);
}

TEST_F(LogConversions, CountsByPositionAreConsumedAndNotWritten) {
  int count = 77;
  EXPECT_EQ(Message("[%1$n%2$s]", &count, "two"), "[two]");
  EXPECT_EQ(Message("[%2$s%1$hn%2$s]", &count, "two"), "[twotwo]");
  EXPECT_EQ(Message("[%3$s%2$*1$n%3$s]", 9, &count, "two"), "[twotwo]");
  EXPECT_EQ(Message("[%3$f %1$ln%2$s]", &count, "two", 0.5), "[0.500000 two]");
  EXPECT_EQ(count, 77);
}

TEST_F(LogConversions, CountsInLevelFileAndFunctionAreConsumedToo) {
  int count = 77;
  file_.logger.Print("%n", "g%n", "%d", &count, &count, 3);
  EXPECT_EQ(file_.Take(), "2024-01-31T08:15:02.004711 |        | g                | 3\n");
  EXPECT_EQ(count, 77);
}

TEST_F(LogConversions, PercentInLevelFileAndFunctionIsAConversion) {
  file_.logger.Print("L%d", "f%s", "%d", 1, "two", 3);
  EXPECT_EQ(file_.Take(), "2024-01-31T08:15:02.004711 | L1      | ftwo                | 3\n");
  file_.logger.DebugPrint("/%d/z%d.cpp", 5, "f", "%d", 1, 3);
  EXPECT_EQ(file_.Take(),
            "2024-01-31T08:15:02.004711 | DEBUG    |         z1.cpp[00005] | f                  | "
            "3\n");
}

TEST_F(LogConversions, NullStringsArePrinted) {
  const char* volatile none = nullptr;
  EXPECT_EQ(Message("%s %10s %.2s|", none, none, none), "(null)     (null) |");
}

TEST_F(LogConversions, ErrnoOfTheCallerIsPrintedAndKept) {
  errno = EACCES;
  EXPECT_EQ(Message("%m"), "Permission denied");
  errno = EACCES;
  EXPECT_EQ(Message("%s %m", std::string(9000, 'x').c_str()).substr(9000), " Permission denied");
  errno = EACCES;
  int count = 0;
  EXPECT_EQ(Message("%n%m", &count), "Permission denied");
  errno = EACCES;
  file_.logger.Print("INFO", "f", "%m");
  EXPECT_EQ(errno, EACCES);
}

TEST_F(LogConversions, MessageLongerThanAnyBufferIsWhole) {
  const std::string message(1000000, 'x');
  EXPECT_EQ(Message("<%s>", message.c_str()), "<" + message + ">");
}

TEST_F(LogConversions, TextOf4095BytesIsWholeAndLongerOnesAreCut) {
  const std::string fitting = Padding(1);  // and the newline
  EXPECT_EQ(Print(fitting), kStart + fitting + "\n");
  EXPECT_EQ(Print(fitting + "y"), kStart + fitting + "y");
  EXPECT_EQ(Print(fitting + "yz"), kStart + fitting + "y");
  EXPECT_EQ(Print(std::string(100000, 'x')).size(), kLineSize);
}

TEST_F(LogConversions, CutCountsBeforeTheArgumentsComeIn) {
  const std::string format = "%s" + Padding(2) + "yz";
  const std::string line = Print(format, "123456");
  EXPECT_EQ(line, kStart + ("123456" + Padding(2)));
}

TEST_F(LogConversions, LongNamesAreCutWithTheLine) {
  const std::string name(5000, 'x');
  file_.logger.Print("INFO", name.c_str(), "%s");  // its argument is not looked for
  const std::string line = file_.Take();
  EXPECT_EQ(line.size(), kLineSize);
  EXPECT_EQ(line.back(), 'x');
}

TEST_F(LogConversions, ConversionThatTheEndCutsIsDropped) {
  const std::string conversions[] = {"%d",   "%-5d",    "%ld",    "%hhd",     "%*d",
                                     "%.3f", "%1$*2$d", "%5.2lf", "%1$.*2$f", "%n"};
  for (const std::string& conversion : conversions) {
    for (std::size_t kept = 1; kept < conversion.size(); ++kept) {
      const std::string padding = Padding(kept);
      EXPECT_EQ(Print(padding + conversion), kStart + padding) << conversion << " " << kept;
    }
  }
}

TEST_F(LogConversions, ConversionBeforeTheCutIsExpanded) {
  const std::string padding = Padding(2);
  EXPECT_EQ(Print(padding + "%d", 12345), kStart + padding + "12345");
  EXPECT_EQ(Print(padding + "%d%s", 12345), kStart + padding + "12345");
  int count = 0;
  EXPECT_EQ(Print(padding + "%n", &count), kStart + padding);
  EXPECT_EQ(Print(padding + "%%"), kStart + padding + "%");
}

TEST_F(LogConversions, ArgumentsByPositionAreFoundAlsoWhenOthersWereCutOff) {
  // The types of those that only the lost part names decide where the others are.
  const std::string format = "%4$s %2$s" + Padding(9) + "lost %1$f %3$Lf %5$n";
  int count = 77;
  EXPECT_EQ(Print(format, 0.5, "two", 1.5L, "four", &count), kStart + ("four two" + Padding(9)));
  const std::string counted = "%2$s%3$n%2$s" + Padding(12) + "lost %1$f";
  EXPECT_EQ(Print(counted, 0.5, "two", &count), kStart + ("twotwo" + Padding(12)));
  EXPECT_EQ(count, 77);
  const std::string complete = "%2$d%1$d" + Padding(8) + "lost %3$s";  // whose argument is missing
  EXPECT_EQ(Print(complete, 1, 2), kStart + ("21" + Padding(8)));
}

TEST_F(LogConversions, UnknownConversionsAreShownAsTheCLibraryShowsThem) {
  EXPECT_EQ(Print("100%"), std::string(kStart) + "100%\n");
  EXPECT_EQ(Message("%y %d", 5), "%y 5");
  EXPECT_EQ(Message("%hln"), "%ln");  // no count
}

TEST_F(LogConversions, CountOfAWidthInBitsIsConsumedOnlyWhereTheCLibraryKnowsIt) {
  std::int8_t count = 77;
  if (KnowsWidthsInBits()) {
    EXPECT_EQ(Message("[%w8n%s %wf16n%s]", &count, "one", &count, "two"), "[one two]");
  } else {
    EXPECT_EQ(Message("[%w8n%s %wf16n%s]", "one", "two"), "[%w8none %wf16ntwo]");
    EXPECT_EQ(Message("%n[%w8n%s]", &count, "one"), "[%w8none]");
  }
  EXPECT_EQ(count, 77);
}

TEST_F(LogConversions, WhatComesBeforeAConversionThatFailsIsWritten) {
  const wchar_t wide[] = {L'a', static_cast<wchar_t>(0x10ffff), L'\0'};
  EXPECT_EQ(Print("before %ls after", wide).substr(0, std::strlen(kStart) + 6),
            std::string(kStart) + "before");
}

TEST(ParseConversion, ReadsAllParts) {
  const auto parse = [](const char* text) { return utils::ParseConversion(text); };
  const char* text = "%12$-#*3$.*4$lld rest";
  const utils::Conversion all = parse(text);
  EXPECT_EQ(all.end - text, 16);
  EXPECT_EQ(all.kind, 'd');
  EXPECT_EQ(all.position, 12U);
  EXPECT_EQ(all.stars, 2U);
  EXPECT_EQ(all.starPositions[0], 3U);
  EXPECT_EQ(all.starPositions[1], 4U);
  EXPECT_EQ(parse("%99999999999999999999d").kind, 'd');
  EXPECT_EQ(parse("%0$d").kind, '$');
  EXPECT_EQ(parse("%hln").kind, 'l');
  EXPECT_EQ(parse("%w8n").kind, KnowsWidthsInBits() ? 'n' : 'w');
  EXPECT_EQ(parse("%wf32n").kind, KnowsWidthsInBits() ? 'n' : 'w');
  for (const char* cut :
       {"%", "%-", "%5", "%5$", "%*", "%*3", "%5$*1", "%*3$", "%.", "%.*", "%l", "%ll"})
    EXPECT_EQ(parse(cut).end, nullptr) << cut;
}

// The line as snprintf and vfprintf make it, one stage after the other.
void PlainPrint(std::FILE* stream, timeval time, const char* level, const char* file, int line,
                const char* function, int fileWidth, int functionWidth, const char* format, ...) {
  std::tm utc{};
  ::gmtime_r(&time.tv_sec, &utc);
  char second[512];
  std::strftime(second, sizeof second, "%Y-%m-%dT%H:%M:%S", &utc);
  char pattern[512];
  char text[4096] = {};
  const auto micros = static_cast<unsigned>(time.tv_usec);
  if (file != nullptr) {
    const char* slash = std::strrchr(file, '/');
    std::snprintf(pattern, sizeof pattern, "%%s.%%06u | %%-8s | %%%ds[%%05d] | %%-%ds | %%s\n",
                  fileWidth, functionWidth);
    std::snprintf(text, sizeof text, pattern, second, micros, level,
                  slash != nullptr ? slash + 1 : file, line, function, format);
  } else {
    std::snprintf(pattern, sizeof pattern, "%%s.%%06u | %%-8s | %%-%ds | %%s\n", functionWidth);
    std::snprintf(text, sizeof text, pattern, second, micros, level, function, format);
  }
  std::va_list args;
  va_start(args, format);
  std::vfprintf(stream, text, args);
  va_end(args);
  std::fflush(stream);
}

class RandomTexts {
 public:
  explicit RandomTexts(unsigned seed) : random_(seed) {}

  int Number(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(random_);
  }
  std::string Name(int longest) {
    std::string text;
    for (int i = Number(0, longest); i > 0; --i) text += "abc/.:| 9_"[Number(0, 9)];
    return text;
  }
  // Takes (int, const char*, double).
  std::string Format() {
    const char* formats[] = {"%d %s %f",       "%5d|%-10s|%.3e", "%2$s %1$d %3$g", "%% %x %.2s %a",
                             "%3$f%2$s%1$d",   "%-08d%10.3s%+G", "100%% %d",       "plain",
                             "%d items of %s", "%1$d%1$d"};
    // Where the line is cut, it is behind the conversions.
    const int more = Number(0, 9) == 0 ? Number(3800, 4100) : 0;
    return Name(60) + formats[Number(0, 9)] + std::string(static_cast<std::size_t>(more), '.') +
           Name(60);
  }

 private:
  std::mt19937 random_;
};

TEST_F(LogConversions, LinesHaveTheBytesOfThePlainStages) {
  RandomTexts random(20240131);
  const std::string plainPath = file_.GetPath() + ".plain";
  std::FILE* plain = std::fopen(plainPath.c_str(), "wb");
  ASSERT_NE(plain, nullptr);
  int cuts = 0;
  for (int i = 0; i < 4000; ++i) {
    const timeval time{random.Number(-2000000000, 2000000000), random.Number(0, 999999)};
    const FixedTime fixed(time);
    const std::string level = random.Name(12);
    const std::string file = random.Name(80);
    const std::string function = random.Name(80);
    const std::string format = random.Format();
    const std::string argument = random.Name(200);
    const int fileWidth = random.Number(6, 59);
    const int functionWidth = random.Number(6, 59);
    const int line = random.Number(-100, 2000000);
    const bool debug = random.Number(0, 1) == 1;
    file_.logger.setWidthFilename(static_cast<unsigned char>(fileWidth));
    file_.logger.setWidthFunction(static_cast<unsigned char>(functionWidth));
    if (debug)
      file_.logger.DebugPrint(file.c_str(), line, function.c_str(), format.c_str(), i,
                              argument.c_str(), i * 0.37);
    else
      file_.logger.Print(level.c_str(), function.c_str(), format.c_str(), i, argument.c_str(),
                         i * 0.37);
    const std::string got = file_.Take();
    cuts += got.empty() || got.back() != '\n';
    std::rewind(plain);
    ASSERT_EQ(::ftruncate(::fileno(plain), 0), 0);
    PlainPrint(plain, time, debug ? "DEBUG" : level.c_str(), debug ? file.c_str() : nullptr, line,
               function.c_str(), fileWidth, functionWidth, format.c_str(), i, argument.c_str(),
               i * 0.37);
    ASSERT_EQ(got, ReadFile(plainPath)) << i << ": " << format;
  }
  std::fclose(plain);
  EXPECT_GT(cuts, 20);
}

}  // namespace
}  // namespace zarn::test
