// EventLoop_test.cpp - events, calls, stopping, descriptors and the end of a turn, on loops of the
// test's own.
#include "keelbase/internal/EventLoop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChildTest.h"
#include "LoopThread.h"
#include "keelbase/internal/FunctionEvent.h"

namespace keelbase::internal {
namespace {

using zarn::test::ChildTest;
using zarn::test::WithLoop;

// Counts itself, and what became of it.
class CountedEvent final : public IAWEvent {
 public:
  CountedEvent(std::atomic<int>& alive, std::atomic<int>& fired) : alive_(alive), fired_(fired) {
    ++alive_;
  }
  ~CountedEvent() override { --alive_; }
  AWResult OnEventFire() override {
    ++fired_;
    return AW_OK;
  }

 private:
  std::atomic<int>& alive_;
  std::atomic<int>& fired_;
};

AWResult Post(EventLoop& loop, std::function<void()> function) {
  return loop.Post(new FunctionEvent(std::move(function)));
}

// A loop that serves on a thread of its own until the test ends.
class ServingLoop {
 public:
  ServingLoop() : thread_([this] { Serve(); }) {}
  ~ServingLoop() { Stop(); }
  EventLoop& operator*() { return loop_; }
  EventLoop* operator->() { return &loop_; }
  void Stop() {
    if (!thread_.joinable()) return;
    loop_.Stop();
    thread_.join();
  }

 private:
  void Serve() {
    loop_.BindToCurrentThread();
    loop_.Run();
  }
  EventLoop loop_{"serving"};
  std::thread thread_;
};

TEST(EventLoop, EventsComeInTheOrderOfTheirPosts) {
  WithLoop([](EventLoop& loop) {
    std::vector<int> order;
    for (int i = 0; i < 100; ++i) {
      EXPECT_EQ(Post(loop, [&order, i] { order.push_back(i); }), AW_OK);
    }
    EXPECT_TRUE(order.empty());
    EXPECT_TRUE(loop.RunReady());
    ASSERT_EQ(order.size(), 100U);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_FALSE(loop.RunReady());
  });
}

TEST(EventLoop, EventThatPostsIsFollowedByWhatItPosted) {
  WithLoop([](EventLoop& loop) {
    std::string order;
    Post(loop, [&] {
      order += "a";
      Post(loop, [&] { order += "c"; });
    });
    Post(loop, [&] { order += "b"; });
    loop.RunReady();
    EXPECT_EQ(order, "abc");
  });
}

TEST(EventLoop, EventsOfEachThreadKeepTheirOrder) {
  constexpr int kThreads = 4;
  constexpr int kEvents = 2000;
  ServingLoop loop;
  std::vector<int> next(kThreads, 0);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kEvents; ++i) {
        Post(*loop, [&, thread, i] {
          if (next[static_cast<std::size_t>(thread)]++ != i) ++wrong;
        });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  loop->Call([&] { EXPECT_EQ(next, std::vector<int>(kThreads, kEvents)); });
  EXPECT_EQ(wrong, 0);
}

TEST(EventLoop, NullEventIsRefused) {
  WithLoop([](EventLoop& loop) { EXPECT_EQ(loop.Post(nullptr), AW_ERROR_FAILURE); });
}

TEST(EventLoop, FiredEventsAreDestroyed) {
  WithLoop([](EventLoop& loop) {
    std::atomic<int> alive{0};
    std::atomic<int> fired{0};
    for (int i = 0; i < 10; ++i) loop.Post(new CountedEvent(alive, fired));
    EXPECT_EQ(alive, 10);
    loop.RunReady();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(fired, 10);
  });
}

TEST(EventLoop, EventsBehindAStopAreDestroyedUnfired) {
  WithLoop([](EventLoop& loop) {
    std::atomic<int> alive{0};
    std::atomic<int> fired{0};
    loop.Post(new CountedEvent(alive, fired));
    Post(loop, [&] { loop.Stop(); });
    for (int i = 0; i < 10; ++i) loop.Post(new CountedEvent(alive, fired));
    EXPECT_EQ(loop.Run(), AW_OK);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(alive, 0);
  });
}

TEST(EventLoop, EventsAfterTheEndAreRefusedAndDestroyed) {
  WithLoop([](EventLoop& loop) {
    Post(loop, [&] { loop.Stop(); });
    loop.Run();
    std::atomic<int> alive{0};
    std::atomic<int> fired{0};
    EXPECT_EQ(loop.Post(new CountedEvent(alive, fired)), AW_ERROR_FAILURE);
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(fired, 0);
  });
}

TEST(EventLoop, EventsThatWaitWhenTheLoopGoesAreDestroyed) {
  std::atomic<int> alive{0};
  std::atomic<int> fired{0};
  WithLoop([&](EventLoop& loop) { loop.Post(new CountedEvent(alive, fired)); });
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(fired, 0);
}

TEST(EventLoop, MayRunAgain) {
  WithLoop([](EventLoop& loop) {
    int runs = 0;
    for (int i = 0; i < 3; ++i) {
      loop.Stop();
      loop.Run();  // a stop before the run ends it at once
      std::thread other([&] {
        while (Post(loop, [&] {
                 ++runs;
                 loop.Stop();
               }) != AW_OK)
          std::this_thread::yield();
      });
      loop.Run();
      other.join();
    }
    EXPECT_EQ(runs, 3);
  });
}

TEST(EventLoop, RunsOnceAtATime) {
  WithLoop([](EventLoop& loop) {
    AWResult inner = AW_OK;
    Post(loop, [&] {
      inner = loop.Run();
      loop.Stop();
    });
    EXPECT_EQ(loop.Run(), AW_OK);
    EXPECT_EQ(inner, AW_ERROR_FAILURE);
  });
}

TEST(EventLoop, StopEndsTheRunAfterTheCallbackInHand) {
  WithLoop([](EventLoop& loop) {
    Timer stopper(loop);
    Timer other(loop);
    int others = 0;
    stopper.Start(std::chrono::microseconds(1), 1, [&] { loop.Stop(); });
    other.Start(std::chrono::microseconds(2), 1, [&] { ++others; });
    const auto due = Clock::Now() + std::chrono::milliseconds(1);
    while (Clock::Now() < due) std::this_thread::yield();
    loop.Run();
    EXPECT_EQ(others, 0);
  });
}

TEST(EventLoop, CallWaitsForItsFunction) {
  ServingLoop loop;
  bool there = false;
  loop->Call([&] { there = loop->IsCurrent(); });
  EXPECT_TRUE(there);
  EXPECT_FALSE(loop->IsCurrent());
}

TEST(EventLoop, CallFromTheThreadItselfRunsInPlace) {
  WithLoop([](EventLoop& loop) {
    bool ran = false;
    loop.Call([&] { ran = true; });
    EXPECT_TRUE(ran);
  });
}

TEST(EventLoop, CallerGetsTheException) {
  ServingLoop loop;
  EXPECT_THROW(loop->Call([] { throw std::runtime_error("for the caller"); }), std::runtime_error);
  bool ran = false;
  loop->Call([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(EventLoop, CallAfterTheEndRunsInPlace) {
  ServingLoop loop;
  loop.Stop();
  std::thread::id ranOn;
  loop->Call([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(EventLoop, CallsThatAreDroppedByAStopRunOnceAndWithoutTheLoop) {
  for (int round = 0; round < 50; ++round) {
    ServingLoop loop;
    std::atomic<int> ran{0};
    std::atomic<int> beside{0};
    std::promise<void> blocked;
    std::promise<void> release;
    Post(*loop, [&] {
      blocked.set_value();
      release.get_future().wait();
      loop->Stop();
    });
    blocked.get_future().wait();
    std::vector<std::thread> callers;
    std::atomic<int> begun{0};
    for (int i = 0; i < 3; ++i) {
      callers.emplace_back([&] {
        ++begun;
        loop->Call([&] {
          ++ran;
          if (!loop->IsCurrent() && loop->IsRunning()) ++beside;
        });
      });
    }
    while (begun < 3) std::this_thread::yield();
    release.set_value();
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(ran, 3);
    EXPECT_EQ(beside, 0);
  }
}

TEST(EventLoop, SleepingLoopIsWokenByAPost) {
  ServingLoop loop;
  for (int i = 0; i < 1000; ++i) {
    std::promise<void> done;
    ASSERT_EQ(Post(*loop, [&] { done.set_value(); }), AW_OK);
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
}

TEST(EventLoop, SpinningLoopServesAsTheSleepingOneDoes) {
  ServingLoop loop;
  loop->SetSpin(50);
  for (int i = 0; i < 200; ++i) {
    std::promise<void> done;
    ASSERT_EQ(Post(*loop, [&] { done.set_value(); }), AW_OK);
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
}

TEST(EventLoop, ExceptionThatLeavesACallbackEndsTheProcessWithAMessage) {
  if (ChildTest::Role() == "throws") {
    EventLoop loop("unlucky");
    loop.BindToCurrentThread();
    Post(loop, [] { throw std::runtime_error("the reason"); });
    loop.RunReady();
    std::exit(0);
  }
  ChildTest child("throws");
  EXPECT_NE(child.Wait(), 0);
  EXPECT_NE(child.GetErrors().find("unlucky thread: the reason"), std::string::npos)
      << child.GetErrors();
}

TEST(EventLoop, ForeignExceptionIsToldToo) {
  if (ChildTest::Role() == "throws") {
    EventLoop loop("unlucky");
    loop.BindToCurrentThread();
    Timer timer(loop);
    timer.Start(std::chrono::microseconds(1), 1, [] { throw 1; });
    zarn::test::TurnUntil(loop, [] { return false; });
    std::exit(0);
  }
  ChildTest child("throws");
  EXPECT_NE(child.Wait(), 0);
  EXPECT_NE(child.GetErrors().find("not a std::exception"), std::string::npos) << child.GetErrors();
}

// --- descriptors ---

struct SocketPair {
  SocketPair() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return;
    near.Reset(ends[0]);
    far.Reset(ends[1]);
  }
  FileDescriptor near;
  FileDescriptor far;
};

class RecordingWatcher final : public Watcher {
 public:
  void OnReady(std::uint32_t events) override {
    ++calls;
    last = events;
    if (then) then();
  }
  int calls = 0;
  std::uint32_t last = 0;
  std::function<void()> then;
};

TEST(EventLoop, WatcherHearsOfInputUntilUnwatched) {
  WithLoop([](EventLoop& loop) {
    SocketPair sockets;
    RecordingWatcher watcher;
    ASSERT_EQ(loop.Watch(sockets.near.Get(), EPOLLIN, watcher), 0);
    EXPECT_FALSE(loop.RunReady());
    ASSERT_EQ(::write(sockets.far.Get(), "x", 1), 1);
    watcher.then = [&] { loop.Unwatch(sockets.near.Get(), watcher); };
    EXPECT_TRUE(loop.RunReady());
    EXPECT_EQ(watcher.calls, 1);
    EXPECT_EQ(watcher.last, static_cast<std::uint32_t>(EPOLLIN));
    EXPECT_FALSE(loop.RunReady());
  });
}

// As a connection whose peer floods it.
class FloodedWatcher final : public Watcher {
 public:
  void OnReady(std::uint32_t) override {}
  bool OnSpin() override {
    if (fails) throw std::runtime_error("while it spins");
    return true;
  }
  bool fails = false;
};

// Runs a spinning loop that has last heard of `watcher`, until it is stopped.
void SpinWith(EventLoop& loop, FloodedWatcher& watcher) {
  SocketPair sockets;
  ASSERT_EQ(loop.Watch(sockets.near.Get(), EPOLLIN | EPOLLET, watcher), 0);
  ASSERT_EQ(::write(sockets.far.Get(), "x", 1), 1);
  loop.RunReady();
  loop.SetSpin(1000);
  loop.Run();
  loop.Unwatch(sockets.near.Get(), watcher);
}

TEST(EventLoop, SpinningForOneWatcherKeepsNobodyElseWaiting) {
  WithLoop([](EventLoop& loop) {
    FloodedWatcher watcher;
    bool fired = false;
    Timer timer(loop);
    timer.Start(std::chrono::milliseconds(1), 1, [&] { fired = true; });
    std::promise<void> served;
    std::thread stranger([&] {
      Post(loop, [&] { served.set_value(); });
      const auto status = served.get_future().wait_for(std::chrono::seconds(10));
      EXPECT_EQ(status, std::future_status::ready);
      while (timer.IsActive() && status == std::future_status::ready) std::this_thread::yield();
      loop.Stop();
    });
    SpinWith(loop, watcher);
    stranger.join();
    EXPECT_TRUE(fired);
  });
}

TEST(EventLoop, ExceptionWhileItSpinsEndsTheProcessWithAMessageToo) {
  if (ChildTest::Role() == "throws") {
    EventLoop loop("unlucky");
    loop.BindToCurrentThread();
    FloodedWatcher watcher;
    watcher.fails = true;
    SpinWith(loop, watcher);
    std::exit(0);
  }
  ChildTest child("throws");
  EXPECT_NE(child.Wait(), 0);
  EXPECT_NE(child.GetErrors().find("unlucky thread: while it spins"), std::string::npos)
      << child.GetErrors();
}

TEST(EventLoop, WatcherThatIsUnwatchedWithinTheTurnHearsNothing) {
  WithLoop([](EventLoop& loop) {
    SocketPair one;
    SocketPair two;
    RecordingWatcher first;
    RecordingWatcher second;
    const auto unwatchBoth = [&] {
      loop.Unwatch(one.near.Get(), first);
      loop.Unwatch(two.near.Get(), second);
    };
    first.then = unwatchBoth;
    second.then = unwatchBoth;
    ASSERT_EQ(loop.Watch(one.near.Get(), EPOLLIN, first), 0);
    ASSERT_EQ(loop.Watch(two.near.Get(), EPOLLIN, second), 0);
    ASSERT_EQ(::write(one.far.Get(), "x", 1), 1);
    ASSERT_EQ(::write(two.far.Get(), "x", 1), 1);
    loop.RunReady();
    EXPECT_EQ(first.calls + second.calls, 1);
  });
}

TEST(EventLoop, WatchingABadDescriptorIsAnError) {
  WithLoop([](EventLoop& loop) {
    RecordingWatcher watcher;
    EXPECT_EQ(loop.Watch(-1, EPOLLIN, watcher), EBADF);
  });
}

// --- polling ---

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
        Post(loop, [&] { loop.Stop(); });
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
        Post(loop, [&] { loop.Stop(); });
      });
      loop.Run();
      EXPECT_TRUE(fired);
      loop.StopPolling(busy);
    });
  }
}

// --- the end of a turn ---

class RecordingTask final : public TurnEndTask {
 public:
  void OnTurnEnd() override {
    ++calls;
    if (then) then();
  }
  int calls = 0;
  std::function<void()> then;
};

TEST(EventLoop, TurnEndsWithWhatWasAskedForInIt) {
  WithLoop([](EventLoop& loop) {
    RecordingTask task;
    Post(loop, [&] { loop.AtTurnEnd(task); });
    Post(loop, [&] { EXPECT_EQ(task.calls, 0); });
    loop.RunReady();
    EXPECT_EQ(task.calls, 1);
    loop.RunReady();
    EXPECT_EQ(task.calls, 1);
  });
}

TEST(EventLoop, TaskMayAskAgainAndMayBeDroppedByAnother) {
  WithLoop([](EventLoop& loop) {
    RecordingTask first;
    RecordingTask second;
    first.then = [&] {
      if (first.calls == 1) loop.AtTurnEnd(first);
      loop.DropTurnEnd(second);
    };
    loop.AtTurnEnd(first);
    loop.AtTurnEnd(second);
    loop.RunReady();
    EXPECT_EQ(first.calls, 2);
    EXPECT_EQ(second.calls, 0);
  });
}

}  // namespace
}  // namespace keelbase::internal
