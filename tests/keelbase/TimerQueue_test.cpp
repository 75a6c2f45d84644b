// TimerQueue_test.cpp - the timers of one loop, mostly on a clock that the test moves.
#include "keelbase/internal/TimerQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "LoopThread.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/ManualClock.h"

namespace keelbase::internal {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using zarn::test::WithLoop;

// A loop whose time is moved by hand.
template <class Body>
void WithTime(Body&& body) {
  WithLoop([&](EventLoop& loop) {
    ManualClock clock;
    body(loop, [&](microseconds step) {
      clock.Advance(step);
      loop.RunReady();
    });
  });
}

TEST(TimerQueue, FiresAfterItsIntervalAndNotBefore) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 1, [&] { ++fired; });
    EXPECT_TRUE(timer.IsActive());
    advance(microseconds(9999));
    EXPECT_EQ(fired, 0);
    advance(microseconds(1));
    EXPECT_EQ(fired, 1);
    EXPECT_FALSE(timer.IsActive());
    advance(milliseconds(100));
    EXPECT_EQ(fired, 1);
  });
}

TEST(TimerQueue, NoIntervalIsSoLongThatItIsOverAtOnce) {
  WithTime([](EventLoop& loop, auto advance) {
    for (const std::uint32_t count : {0U, 1U}) {
      int fired = 0;
      Timer timer(loop);
      timer.Start(microseconds::max(), count, [&] { ++fired; });
      advance(std::chrono::hours(24));
      EXPECT_EQ(fired, 0);
      EXPECT_TRUE(timer.IsActive());
    }
  });
}

TEST(TimerQueue, RepeatsAsOftenAsAsked) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 3, [&] { ++fired; });
    for (int i = 1; i <= 5; ++i) {
      advance(milliseconds(10));
      EXPECT_EQ(fired, std::min(i, 3));
      EXPECT_EQ(timer.IsActive(), i < 3);
    }
  });
}

TEST(TimerQueue, ZeroRepeatsForEver) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 0, [&] { ++fired; });
    for (int i = 0; i < 1000; ++i) advance(milliseconds(10));
    EXPECT_EQ(fired, 1000);
    EXPECT_TRUE(timer.IsActive());
  });
}

TEST(TimerQueue, SecondStartReplacesTheFirst) {
  WithTime([](EventLoop& loop, auto advance) {
    std::string fired;
    Timer timer(loop);
    timer.Start(milliseconds(10), 0, [&] { fired += "a"; });
    timer.Start(milliseconds(15), 1, [&] { fired += "b"; });
    advance(milliseconds(10));
    EXPECT_EQ(fired, "");
    advance(milliseconds(50));
    EXPECT_EQ(fired, "b");
  });
}

TEST(TimerQueue, LateTickIsNotFollowedByABurst) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 0, [&] { ++fired; });
    advance(milliseconds(1000));
    EXPECT_EQ(fired, 1);
    advance(milliseconds(9));
    EXPECT_EQ(fired, 1);
    advance(milliseconds(1));
    EXPECT_EQ(fired, 2);
  });
}

TEST(TimerQueue, TickThatIsLateByAnotherTimersCallIsNotFollowedByABurst) {
  WithLoop([](EventLoop& loop) {
    ManualClock clock;
    int fired = 0;
    Timer slow(loop);
    Timer other(loop);
    slow.Start(milliseconds(10), 1, [&] { clock.Advance(milliseconds(35)); });
    other.Start(milliseconds(10), 0, [&] { ++fired; });
    clock.Advance(milliseconds(10));
    loop.RunReady();
    EXPECT_EQ(fired, 1);
    clock.Advance(milliseconds(10));
    loop.RunReady();
    EXPECT_EQ(fired, 2);
  });
}

TEST(TimerQueue, SlightlyLateTickKeepsTheBeat) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 0, [&] { ++fired; });
    advance(milliseconds(13));
    EXPECT_EQ(fired, 1);
    advance(milliseconds(7));
    EXPECT_EQ(fired, 2);
  });
}

TEST(TimerQueue, TimersFireInTheOrderOfTheirTimes) {
  WithTime([](EventLoop& loop, auto advance) {
    std::string fired;
    Timer a(loop);
    Timer b(loop);
    Timer c(loop);
    a.Start(milliseconds(30), 1, [&] { fired += "a"; });
    b.Start(milliseconds(10), 1, [&] { fired += "b"; });
    c.Start(milliseconds(20), 1, [&] { fired += "c"; });
    advance(milliseconds(40));
    EXPECT_EQ(fired, "bca");
  });
}

TEST(TimerQueue, CancelAndDestructionEndIt) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 0, [&] { ++fired; });
    timer.Cancel();
    timer.Cancel();
    EXPECT_FALSE(timer.IsActive());
    {
      Timer other(loop);
      other.Start(milliseconds(10), 0, [&] { ++fired; });
    }
    advance(milliseconds(20));
    EXPECT_EQ(fired, 0);
  });
}

TEST(TimerQueue, MayBeCancelledInItsOwnCallback) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 0, [&] {
      ++fired;
      timer.Cancel();
    });
    advance(milliseconds(10));
    advance(milliseconds(50));
    EXPECT_EQ(fired, 1);
  });
}

// The parent's thread, in whose callback the child was made, is not there to end it.
TEST(TimerQueue, IsCancelledInAForkedChildThoughItsParentHadACallback) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(milliseconds(10), 1, [&] {
      ++fired;
      loop.LeaveToParent();
      std::thread([&] { timer.Cancel(); }).join();
    });
    advance(milliseconds(10));
    EXPECT_EQ(fired, 1);
  });
}

TEST(TimerQueue, MayBeDestroyedInItsOwnCallback) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    auto timer = std::make_unique<Timer>(loop);
    const std::string captured(100, 'x');  // the function must outlive the timer that holds it
    timer->Start(milliseconds(10), 0, [&, captured] {
      timer.reset();
      fired += static_cast<int>(captured.size());
    });
    advance(milliseconds(10));
    advance(milliseconds(50));
    EXPECT_EQ(fired, 100);
  });
}

TEST(TimerQueue, MayBeStartedAgainInItsOwnCallback) {
  WithTime([](EventLoop& loop, auto advance) {
    std::string fired;
    Timer timer(loop);
    timer.Start(milliseconds(10), 0, [&] {
      fired += "a";
      timer.Start(milliseconds(5), 1, [&] { fired += "b"; });
    });
    advance(milliseconds(10));
    advance(milliseconds(5));
    advance(milliseconds(50));
    EXPECT_EQ(fired, "ab");
  });
}

TEST(TimerQueue, CallbackMayEndAnotherTimerThatIsDue) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer first(loop);
    auto second = std::make_unique<Timer>(loop);
    first.Start(milliseconds(10), 1, [&] { second.reset(); });
    second->Start(milliseconds(10), 1, [&] { ++fired; });
    advance(milliseconds(10));
    EXPECT_EQ(fired, 0);
  });
}

TEST(TimerQueue, IntervalBelowAMicrosecondCountsAsOne) {
  WithTime([](EventLoop& loop, auto advance) {
    int fired = 0;
    Timer timer(loop);
    timer.Start(microseconds(0), 0, [&] { ++fired; });
    advance(microseconds(1));
    EXPECT_EQ(fired, 1);
    timer.Start(microseconds(-5), 1, [&] { fired += 10; });
    advance(microseconds(1));
    EXPECT_EQ(fired, 11);
  });
}

// --- other threads, on the real clock ---

class Serving {
 public:
  Serving()
      : thread_([this] {
          loop.BindToCurrentThread();
          loop.Run();
        }) {}
  ~Serving() {
    loop.Stop();
    thread_.join();
  }
  EventLoop loop{"serving"};

 private:
  std::thread thread_;
};

TEST(TimerQueue, StartFromAnotherThreadWakesASleepingLoop) {
  Serving serving;
  Timer timer(serving.loop);
  std::promise<bool> fired;
  timer.Start(milliseconds(1), 1, [&] { fired.set_value(serving.loop.IsCurrent()); });
  auto future = fired.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(future.get());
}

TEST(TimerQueue, CancelFromAnotherThreadWaitsForTheCallback) {
  Serving serving;
  Timer timer(serving.loop);
  std::promise<void> inside;
  std::promise<void> leave;
  std::atomic<bool> finished{false};
  timer.Start(microseconds(1), 1, [&] {
    inside.set_value();
    leave.get_future().wait();
    finished = true;
  });
  inside.get_future().wait();
  std::thread releaser([&] { leave.set_value(); });
  timer.Cancel();
  EXPECT_TRUE(finished);
  releaser.join();
}

TEST(TimerQueue, CancelFromAnotherThreadEndsATimerThatAlwaysStartsAgain) {
  Serving serving;
  Timer timer(serving.loop);
  std::promise<void> inside;
  std::promise<void> leave;
  std::atomic<int> calls{0};
  std::atomic<int> startedAgain{0};
  const std::function<void()> call = [&] {
    if (++calls == 1) {
      inside.set_value();
      leave.get_future().wait();
    }
    timer.Start(microseconds(0), 1, call);
    if (timer.IsActive()) ++startedAgain;
  };
  timer.Start(microseconds(1), 0, call);  // for ever, so that it shows when the cancel has begun
  inside.get_future().wait();
  std::thread canceller([&] { timer.Cancel(); });
  while (timer.IsActive()) std::this_thread::yield();
  leave.set_value();
  canceller.join();
  serving.loop.Call([] {});
  EXPECT_FALSE(timer.IsActive());
  EXPECT_EQ(startedAgain, 0);
  EXPECT_EQ(calls, 1);
}

TEST(TimerQueue, MayBeStartedAndCancelledFromAnotherThreadAtAnyMoment) {
  Serving serving;
  std::atomic<int> fired{0};
  for (int i = 0; i < 2000; ++i) {
    Timer timer(serving.loop);
    bool alive = true;
    timer.Start(microseconds(1), 0, [&] { fired += alive ? 1 : 1000000; });
    if (i % 2 == 0) std::this_thread::yield();
    timer.Cancel();
    alive = false;
  }
  EXPECT_LT(fired, 1000000);
}

}  // namespace
}  // namespace keelbase::internal
