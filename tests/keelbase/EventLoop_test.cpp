// EventLoop_test.cpp - events, calls, stopping and the end of a turn, on loops of the test's own.
#include "keelbase/internal/EventLoop.h"

#include <gtest/gtest.h>

#include <atomic>
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

TEST(EventLoop, WhatAStopLeavesAndWhatIsPostedAfterwardsWaitsForTheNextRunInItsOrder) {
  WithLoop([](EventLoop& loop) {
    std::string log;
    Post(loop, [&] { loop.Stop(); });
    Post(loop, [&] { log += "a"; });
    Post(loop, [&] { log += "b"; });
    EXPECT_EQ(loop.Run(), AW_OK);
    EXPECT_EQ(Post(loop, [&] { log += "c"; }), AW_OK);
    EXPECT_EQ(log, "");
    Post(loop, [&] { loop.Stop(); });
    EXPECT_EQ(loop.Run(), AW_OK);
    EXPECT_EQ(log, "abc");
  });
}

TEST(EventLoop, TasksThatOutlastARunWaitForTheNextOneAndTheOthersAreDropped) {
  struct Note final : LoopTask {
    Note(std::string& all, char what, bool lasts) : log(all), name(what), outlasts(lasts) {}
    void OnLoopTask() override { log += name; }
    void OnDropped() override { (log += "-") += name; }
    bool OutlastsRun() const override { return outlasts; }
    std::string& log;
    char name;
    bool outlasts;
  };
  WithLoop([](EventLoop& loop) {
    std::string log;
    Note kept(log, 'k', true);
    Note dropped(log, 'd', false);
    Note later(log, 'l', true);
    Post(loop, [&] { loop.Stop(); });
    loop.PostTask(kept);
    loop.PostTask(dropped);
    loop.Run();
    EXPECT_EQ(log, "-d");
    EXPECT_FALSE(loop.PostTask(dropped));
    EXPECT_TRUE(loop.PostTask(later));
    std::thread stopper([&] {
      while (!loop.PostTask(dropped)) std::this_thread::yield();  // it runs
      loop.Call([&] { loop.Stop(); });
    });
    loop.Run();
    stopper.join();
    EXPECT_EQ(log, "-dkld");
  });
}

TEST(EventLoop, EventsBehindAStopAreDestroyedUnfiredWhenThatIsWanted) {
  WithLoop([](EventLoop& loop) {
    std::atomic<int> alive{0};
    std::atomic<int> fired{0};
    loop.Post(new CountedEvent(alive, fired));
    Post(loop, [&] { loop.Stop(); });
    for (int i = 0; i < 10; ++i) loop.Post(new CountedEvent(alive, fired));
    EXPECT_EQ(loop.Run(EventLoop::Afterwards::destroyed), AW_OK);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(alive, 0);
  });
}

TEST(EventLoop, EventsAfterTheEndAreRefusedAndDestroyed) {
  WithLoop([](EventLoop& loop) {
    loop.End();
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
