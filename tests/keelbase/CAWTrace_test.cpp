// CAWTrace_test.cpp - the trace manager with its sinks, and lines built in a caller's buffer.
#include "keelbase/CAWTrace.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <climits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace keelbase {
namespace {

class IAWTraceManagerTest : public testing::Test {
 protected:
  ~IAWTraceManagerTest() override { manager_->SetSink({}); }

  IAWTraceManager* const manager_ = IAWTraceManager::Instance();
};

TEST_F(IAWTraceManagerTest, InstanceIsAlwaysTheSame) {
  EXPECT_EQ(IAWTraceManager::Instance(), manager_);
}

TEST_F(IAWTraceManagerTest, SinkGetsEveryLevelAndTextAsGiven) {
  std::vector<std::string> lines;
  manager_->SetSink([&](std::uint32_t level, std::string_view text) {
    lines.push_back(std::to_string(level) + ":" + std::string(text));
  });
  manager_->Trace(0, "broken");
  manager_->Trace(3, "detail");
  manager_->Trace(0, "");
  EXPECT_EQ(lines, (std::vector<std::string>{"0:broken", "3:detail", "0:"}));
}

TEST_F(IAWTraceManagerTest, SinkIsCalledByOneThreadAtATime) {
  constexpr int kThreads = 4;
  constexpr int kLines = 1000;
  int lines = 0;  // only the manager's lock keeps this right
  manager_->SetSink([&](std::uint32_t, std::string_view) { ++lines; });
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this] {
      for (int line = 0; line < kLines; ++line) manager_->Trace(1, "line");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(lines, kThreads * kLines);
}

TEST_F(IAWTraceManagerTest, LineThatTheSinkItselfTracesIsDropped) {
  std::vector<std::string> lines;
  manager_->SetSink([&](std::uint32_t, std::string_view text) {
    lines.emplace_back(text);
    manager_->Trace(0, "from the sink");
  });
  manager_->Trace(0, "first");
  manager_->Trace(0, "second");
  EXPECT_EQ(lines, (std::vector<std::string>{"first", "second"}));
}

TEST_F(IAWTraceManagerTest, SinkMayReplaceItself) {
  std::vector<std::string> lines;
  manager_->SetSink([&](std::uint32_t, std::string_view text) {
    manager_->SetSink([&](std::uint32_t, std::string_view later) {
      lines.push_back("second:" + std::string(later));
    });
    lines.push_back("first:" + std::string(text));
  });
  manager_->Trace(0, "one");
  manager_->Trace(0, "two");
  EXPECT_EQ(lines, (std::vector<std::string>{"first:one", "second:two"}));
}

TEST_F(IAWTraceManagerTest, SinkThatThrowsDoesNotReachTheCallerAndIsCalledAgain) {
  int calls = 0;
  manager_->SetSink([&](std::uint32_t, std::string_view) {
    ++calls;
    throw std::runtime_error("sink");
  });
  EXPECT_NO_THROW(manager_->Trace(0, "first"));
  EXPECT_NO_THROW(manager_->Trace(0, "second"));
  EXPECT_EQ(calls, 2);
}

TEST_F(IAWTraceManagerTest, ThreadThatIsCancelledInTheSinkEndsAndLeavesTheTraceAsAfterAnyLine) {
  std::vector<std::string> lines;
  const auto second = [&](std::uint32_t, std::string_view text) {
    lines.push_back("second:" + std::string(text));
  };
  manager_->SetSink([&](std::uint32_t, std::string_view text) {
    lines.push_back("first:" + std::string(text));
    manager_->SetSink(second);
    ::pthread_testcancel();
  });
  struct TraceAtEnd {
    IAWTraceManager* manager;
    ~TraceAtEnd() { manager->Trace(0, "its end"); }
  };
  std::thread cancelled([&] {
    const TraceAtEnd end{manager_};
    ::pthread_cancel(::pthread_self());
    manager_->Trace(0, "cancelled");
    lines.emplace_back("went on");
  });
  cancelled.join();
  manager_->Trace(0, "another thread");
  EXPECT_EQ(lines, (std::vector<std::string>{"first:cancelled", "second:its end",
                                             "second:another thread"}));
}

TEST_F(IAWTraceManagerTest, DefaultSinkWritesOnlyErrorsToStandardError) {
  manager_->SetSink([](std::uint32_t, std::string_view) {});
  manager_->SetSink({});
  testing::internal::CaptureStderr();
  manager_->Trace(1, "a detail");
  manager_->Trace(0, "an error");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "an error\n");
}

TEST_F(IAWTraceManagerTest, DefaultSinkHoldsBackRepeatsOfOneText) {
  testing::internal::CaptureStderr();
  for (int i = 0; i < 50; ++i) manager_->Trace(0, "the same error");
  manager_->Trace(0, "another error");
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_LE(std::count(output.begin(), output.end(), '\n'), 30);  // 6 unless the machine stalls
  EXPECT_NE(output.find("the same error\n"), std::string::npos);
  EXPECT_NE(output.find("another error\n"), std::string::npos);
}

// The buffer stands between two guards that must keep their value.
template <std::size_t kSize>
struct Guarded {
  char before = '#';
  char buffer[kSize];
  char after = '#';

  bool IsIntact() const { return before == '#' && after == '#'; }
};

TEST(CAWTextFormator, BuildsTextFromEveryKindOfValue) {
  char buffer[256];
  CAWTextFormator line(buffer, sizeof(buffer));
  line << "text " << std::string_view("viewed", 4) << ' ' << -1 << ' ' << 2U << ' ' << -3L << ' '
       << 4UL << ' ' << -5LL << ' ' << 6ULL;
  EXPECT_EQ(line.View(), "text view -1 2 -3 4 -5 6");
  EXPECT_STREQ(line.GetText(), "text view -1 2 -3 4 -5 6");
  EXPECT_EQ(line.GetLength(), 24U);
}

TEST(CAWTextFormator, PrintsTheEndsOfTheRanges) {
  char buffer[256];
  CAWTextFormator line(buffer, sizeof(buffer));
  line << LLONG_MIN << ' ' << ULLONG_MAX << ' ' << INT_MIN << ' ' << UINT_MAX;
  EXPECT_EQ(line.View(), "-9223372036854775808 18446744073709551615 -2147483648 4294967295");
}

TEST(CAWTextFormator, PrintsAddressesInHexadecimalAndNullTextByName) {
  char buffer[64];
  CAWTextFormator line(buffer, sizeof(buffer));
  line << reinterpret_cast<const void*>(0x7f00beefUL) << ' ' << static_cast<const char*>(nullptr);
  EXPECT_EQ(line.View(), "0x7f00beef (null)");
}

TEST(CAWTextFormator, CutsWhatDoesNotFitAndStaysTerminated) {
  Guarded<6> guarded{};
  CAWTextFormator line(guarded.buffer, sizeof(guarded.buffer));
  line << "abc" << 12345 << "more";
  EXPECT_EQ(line.View(), "abc12");
  EXPECT_STREQ(line.GetText(), "abc12");
  EXPECT_TRUE(guarded.IsIntact());
}

TEST(CAWTextFormator, BufferOfOneByteHoldsOnlyTheEnd) {
  Guarded<1> guarded{};
  guarded.buffer[0] = 'x';
  CAWTextFormator line(guarded.buffer, 1);
  line << "abc";
  EXPECT_STREQ(line.GetText(), "");
  EXPECT_EQ(line.GetLength(), 0U);
  EXPECT_TRUE(guarded.IsIntact());
}

TEST(CAWTextFormator, BufferOfNoBytesIsNotTouched) {
  char untouched = '#';
  CAWTextFormator line(&untouched, 0);
  line << "abc" << 1;
  EXPECT_EQ(untouched, '#');
  EXPECT_STREQ(line.GetText(), "");
  CAWTextFormator nowhere(nullptr, 0);
  nowhere << 'a';
  EXPECT_EQ(nowhere.View(), "");
}

TEST(CAWTextFormator, IsEmptyAndTerminatedFromTheStart) {
  char buffer[4] = {'x', 'y', 'z', 0};
  const CAWTextFormator line(buffer, sizeof(buffer));
  EXPECT_STREQ(line.GetText(), "");
}

}  // namespace
}  // namespace keelbase
