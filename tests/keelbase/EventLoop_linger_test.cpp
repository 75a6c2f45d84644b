// EventLoop_linger_test.cpp - those who still write when their loop has ended.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "DescriptorShortage.h"
#include "LoopThread.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FileDescriptor.h"

namespace keelbase::internal {
namespace {

using zarn::test::WithLoop;

// Can always write unless it is full; ends by what a test makes it do.
class RecordingLinger final : public LingerTask {
 public:
  explicit RecordingLinger(EventLoop& loop) : loop_(loop) { loop.BeginLinger(*this); }
  ~RecordingLinger() { loop_.EndLinger(*this); }

  int LingerDescriptor() const override { return file_.Get(); }
  Clock::Point LingerDeadline() const override { return deadline; }
  void WriteLingering() override {
    ++writes;
    if (whenWritten) whenWritten();
  }
  void AbandonLinger() override {
    ++abandons;
    if (whenAbandoned) whenAbandoned();
  }

  void Fill() {
    const std::uint64_t most = UINT64_MAX - 1;
    EXPECT_EQ(::write(file_.Get(), &most, sizeof most), 8);
  }
  void Empty() {
    std::uint64_t all = 0;
    EXPECT_EQ(::read(file_.Get(), &all, sizeof all), 8);
  }

  Clock::Point deadline = Clock::Now() + std::chrono::seconds(20);
  int writes = 0;
  int abandons = 0;
  std::function<void()> whenWritten;
  std::function<void()> whenAbandoned;

 private:
  EventLoop& loop_;
  FileDescriptor file_{::eventfd(0, EFD_CLOEXEC)};
};

TEST(EventLoop, LingersAreFinishedWhenAllHaveWritten) {
  WithLoop([](EventLoop& loop) {
    RecordingLinger first(loop), second(loop);
    first.whenWritten = [&] { loop.EndLinger(first); };
    second.whenWritten = [&] {
      if (second.writes == 3) loop.EndLinger(second);
    };
    loop.FinishLingers();
    EXPECT_EQ(first.writes, 1);
    EXPECT_EQ(second.writes, 3);
    EXPECT_EQ(first.abandons + second.abandons, 0);
  });
}

TEST(EventLoop, LingerOutOfTimeIsAbandonedAndTheOthersWriteOn) {
  WithLoop([](EventLoop& loop) {
    RecordingLinger late(loop), other(loop);
    late.deadline = Clock::Now();
    late.whenAbandoned = [&] { loop.EndLinger(late); };
    other.whenWritten = [&] { loop.EndLinger(other); };
    loop.FinishLingers();
    EXPECT_EQ(late.abandons, 1);
    EXPECT_EQ(late.writes, 0);
    EXPECT_EQ(other.writes, 1);
  });
}

// So a TLS connection over pseudo-TCP goes with the port that brings its last bytes.
TEST(EventLoop, LingerMayDeleteOthersAndItself) {
  WithLoop([](EventLoop& loop) {
    auto earlier = std::make_unique<RecordingLinger>(loop);
    auto writing = std::make_unique<RecordingLinger>(loop);
    auto later = std::make_unique<RecordingLinger>(loop);
    writing->whenWritten = [&] {
      earlier.reset();
      later.reset();
      std::exchange(writing, nullptr).reset();
    };
    loop.FinishLingers();
    EXPECT_FALSE(earlier || writing || later);
  });
}

TEST(EventLoop, LingerWaitsUntilItCanWriteWhileOthersDo) {
  WithLoop([](EventLoop& loop) {
    RecordingLinger full(loop), other(loop);
    full.Fill();
    full.whenWritten = [&] { loop.EndLinger(full); };
    other.whenWritten = [&] {
      if (other.writes < 3) return;
      EXPECT_EQ(full.writes, 0);
      full.Empty();
      loop.EndLinger(other);
    };
    loop.FinishLingers();
    EXPECT_EQ(full.writes, 1);
  });
}

// As a TLS connection leaves its end to the transport below.
TEST(EventLoop, LingerThatBeginsWhileOthersAreFinishedIsFinishedToo) {
  WithLoop([](EventLoop& loop) {
    RecordingLinger upper(loop);
    std::unique_ptr<RecordingLinger> lower;
    upper.whenWritten = [&] {
      loop.EndLinger(upper);
      lower = std::make_unique<RecordingLinger>(loop);
      lower->whenWritten = [&] { loop.EndLinger(*lower); };
    };
    loop.FinishLingers();
    ASSERT_TRUE(lower);
    EXPECT_EQ(lower->writes, 1);
  });
}

TEST(EventLoop, LingersAreFinishedAlsoWhereFewerDescriptorsAreAllowedByNow) {
  WithLoop([](EventLoop& loop) {
    RecordingLinger first(loop), second(loop);
    for (RecordingLinger* linger : {&first, &second})
      linger->whenWritten = linger->whenAbandoned = [&loop, linger] { loop.EndLinger(*linger); };
    const zarn::test::DescriptorLimit one(1);
    loop.FinishLingers();
    EXPECT_EQ(first.writes, 1);
    EXPECT_EQ(second.writes, 1);
  });
}

}  // namespace
}  // namespace keelbase::internal
