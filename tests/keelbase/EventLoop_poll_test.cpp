// EventLoop_poll_test.cpp - pollers that a loop asks before it sleeps.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "LoopThread.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FunctionEvent.h"

namespace keelbase::internal {
namespace {

using zarn::test::WithLoop;

// Has as much work as a test gives it.
class RecordingPoller final : public Poller {
 public:
  bool Poll() override {
    ++polls;
    if (then) then();
    if (work == 0) return false;
    --work;
    return true;
  }
  bool Arm() override {
    ++arms;
    if (whenArmed) whenArmed();
    return work == 0;
  }
  int polls = 0;
  int arms = 0;
  int work = 0;
  std::function<void()> then;
  std::function<void()> whenArmed;
};

TEST(EventLoop, PollerIsAskedEachTurnUntilItIsStopped) {
  WithLoop([](EventLoop& loop) {
    RecordingPoller poller;
    poller.work = 3;
    loop.StartPolling(poller);
    EXPECT_EQ(poller.polls, 0);
    EXPECT_TRUE(loop.RunReady());
    EXPECT_EQ(poller.polls, 4);
    EXPECT_FALSE(loop.RunReady());
    EXPECT_EQ(poller.polls, 5);
    loop.StopPolling(poller);
    loop.RunReady();
    EXPECT_EQ(poller.polls, 5);
    EXPECT_EQ(poller.arms, 0);
  });
}

TEST(EventLoop, PollersMayStopAndStartEachOtherInsideAPoll) {
  WithLoop([](EventLoop& loop) {
    RecordingPoller first;
    RecordingPoller second;
    RecordingPoller third;
    first.then = [&] {
      if (first.polls != 1) return;
      loop.StopPolling(second);
      loop.StartPolling(third);
    };
    third.then = [&] {
      if (third.polls == 1) loop.StopPolling(first);
    };
    loop.StartPolling(first);
    loop.StartPolling(second);
    loop.RunReady();
    EXPECT_EQ(first.polls, 1);
    EXPECT_EQ(second.polls, 0);
    EXPECT_EQ(third.polls, 1);  // in the turn in which it was started
    loop.RunReady();
    EXPECT_EQ(first.polls, 1);
    EXPECT_EQ(third.polls, 2);
    loop.StopPolling(third);
  });
}

TEST(EventLoop, PollerMayStopAndStartItselfAndOthersMayGrowTheList) {
  WithLoop([](EventLoop& loop) {
    RecordingPoller poller;
    std::vector<RecordingPoller> many(100);
    poller.then = [&] {
      if (poller.polls != 1) return;
      loop.StopPolling(poller);
      for (RecordingPoller& one : many) loop.StartPolling(one);
      loop.StartPolling(poller);
    };
    loop.StartPolling(poller);
    loop.RunReady();
    EXPECT_EQ(poller.polls, 2);
    for (RecordingPoller& one : many) {
      EXPECT_EQ(one.polls, 1);
      loop.StopPolling(one);
    }
    loop.RunReady();
    EXPECT_EQ(poller.polls, 3);
    loop.StopPolling(poller);
  });
}

TEST(EventLoop, PollersAreArmedBeforeTheLoopSleepsAndThenLeftAlone) {
  WithLoop([](EventLoop& loop) {
    RecordingPoller poller;
    poller.work = 2;
    loop.StartPolling(poller);
    Timer end(loop);
    end.Start(std::chrono::milliseconds(20), 1, [&] { loop.Stop(); });
    loop.Run();
    EXPECT_EQ(poller.arms, 1);
    EXPECT_GE(poller.polls, 2);
    EXPECT_LT(poller.polls, 100);
  });
}

TEST(EventLoop, LoopDoesNotSleepWhileAPollerFindsWorkWhenItIsArmed) {
  WithLoop([](EventLoop& loop) {
    RecordingPoller poller;
    poller.whenArmed = [&] {
      if (poller.arms == 5) {
        loop.Post(new FunctionEvent([&] { loop.Stop(); }));
      } else {
        poller.work = 1;  // it came between the last look and the arming
      }
    };
    loop.StartPolling(poller);
    bool late = false;  // had it slept in between, only this would have woken it
    Timer end(loop);
    end.Start(std::chrono::seconds(10), 1, [&] {
      late = true;
      loop.Stop();
    });
    loop.Run();
    EXPECT_FALSE(late);
    EXPECT_EQ(poller.arms, 5);
    EXPECT_GE(poller.polls, 5);
  });
}

TEST(EventLoop, PollerThatIsArmedMayBeStartedAgain) {
  WithLoop([](EventLoop& loop) {
    RecordingPoller poller;
    int starts = 0;
    Timer again(loop);
    loop.StartPolling(poller);
    again.Start(std::chrono::milliseconds(2), 0, [&] {
      if (poller.arms != starts + 1) return;  // it has not gone to sleep yet
      if (++starts == 3) return loop.Stop();
      loop.StartPolling(poller);
    });
    loop.Run();
    EXPECT_EQ(starts, 3);
    EXPECT_EQ(poller.arms, 3);
  });
}

TEST(EventLoop, IdlePollerIsNotAskedForEverThoughTheLoopSpins) {
  WithLoop([](EventLoop& loop) {
    RecordingPoller idle;
    RecordingPoller busy;
    busy.then = [&] {
      busy.work = 1;
      if (busy.polls == 30000) loop.Stop();
    };
    loop.StartPolling(idle);
    loop.StartPolling(busy);
    loop.SetSpin(1000);
    loop.Run();
    EXPECT_EQ(idle.arms, 1);
    EXPECT_GT(idle.polls, 1000);
    EXPECT_LT(idle.polls, 10000);
    EXPECT_EQ(busy.arms, 0);
    loop.StopPolling(busy);
  });
}

TEST(EventLoop, PollerThatAlwaysHasWorkKeepsNobodyElseWaiting) {
  for (const std::uint32_t spin : {0U, 1000U}) {
    WithLoop([&](EventLoop& loop) {
      RecordingPoller busy;
      busy.then = [&] { busy.work = 1; };
      loop.StartPolling(busy);
      loop.SetSpin(spin);
      bool fired = false;
      Timer timer(loop);
      timer.Start(std::chrono::milliseconds(1), 1, [&] {
        fired = true;
        loop.Post(new FunctionEvent([&] { loop.Stop(); }));
      });
      loop.Run();
      EXPECT_TRUE(fired);
      loop.StopPolling(busy);
    });
  }
}

}  // namespace
}  // namespace keelbase::internal
