// LoopAllocations_test.cpp - what the loop does for those who have no memory: calls, destructions,
// turn ends, pollers, timers, events.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Exhaustion.h"
#include "LoopThread.h"
#include "TraceLines.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWThreadManager.h"
#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/ManualClock.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TimerQueue.h"

namespace keelbase::internal {
namespace {

using zarn::test::FailingAllocation;
using zarn::test::TraceLines;
using zarn::test::WithLoop;

constexpr bool kAllLater = true;

TEST(LoopAllocations, ACallFromAnotherThreadNeedsNone) {
  EventLoop loop("serving");
  std::thread serving([&] {
    loop.BindToCurrentThread();
    loop.Run();
  });
  int ran = 0;
  int more[4] = {1, 2, 3, 4};
  {
    const FailingAllocation none(1, kAllLater);
    for (int i = 0; i < 100; ++i)
      loop.Call([&ran, &more, i, &loop] { ran += loop.IsCurrent() && more[i % 4] != 0 ? 1 : 0; });
  }
  EXPECT_EQ(ran, 100);
  loop.Stop();
  serving.join();
}

class CountedInterface {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

 protected:
  virtual ~CountedInterface() = default;
};

class LetGo final : public LoopObject<CountedInterface> {
 public:
  LetGo(EventLoop& loop, std::thread::id& destroyedOn)
      : LoopObject(loop), destroyedOn_(destroyedOn) {}
  ~LetGo() override { destroyedOn_ = std::this_thread::get_id(); }

 private:
  std::thread::id& destroyedOn_;
};

TEST(LoopAllocations, AnObjectThatAnotherThreadLetsGoIsDestroyedOnItsOwn) {
  WithLoop([](EventLoop& loop) {
    std::thread::id destroyedOn;
    CAWAutoPtr<LetGo> object(new LetGo(loop, destroyedOn));
    std::thread([&] {
      const FailingAllocation none(1, kAllLater);
      object = nullptr;
    }).join();
    EXPECT_EQ(destroyedOn, std::thread::id());
    loop.RunReady();
    EXPECT_EQ(destroyedOn, std::this_thread::get_id());
  });
}

TEST(LoopAllocations, TasksRunInTheirOrderBehindWhatWasPostedBefore) {
  struct Note final : LoopTask {
    Note(std::vector<int>& all, int what) : notes(all), number(what) {}
    void OnLoopTask() override { notes.push_back(number); }
    void OnDropped() override { notes.push_back(-number); }
    std::vector<int>& notes;
    int number;
  };
  WithLoop([](EventLoop& loop) {
    std::vector<int> notes;
    Note first(notes, 1);
    Note second(notes, 2);
    Note third(notes, 3);
    EXPECT_TRUE(loop.PostTask(first));
    EXPECT_TRUE(loop.PostTask(second));
    loop.RunReady();
    EXPECT_TRUE(loop.PostTask(third));
    loop.DropPosted();
    EXPECT_EQ(notes, (std::vector<int>{1, 2, -3}));
    EXPECT_FALSE(loop.PostTask(third));
  });
}

TEST(LoopAllocations, TurnEndsNeedNone) {
  struct Counter final : TurnEndTask {
    void OnTurnEnd() override { ++count; }
    int count = 0;
  };
  WithLoop([](EventLoop& loop) {
    Counter counters[100];
    const FailingAllocation none(1, kAllLater);
    for (Counter& counter : counters) loop.AtTurnEnd(counter);
    loop.DropTurnEnd(counters[0]);
    loop.DropTurnEnd(counters[50]);
    loop.DropTurnEnd(counters[99]);
    loop.RunReady();
    int count = 0;
    for (const Counter& counter : counters) count += counter.count;
    EXPECT_EQ(count, 97);
  });
}

TEST(LoopAllocations, PollersNeedNone) {
  struct Counter final : Poller {
    bool Poll() override {
      ++count;
      return false;
    }
    bool Arm() override { return true; }
    int count = 0;
  };
  WithLoop([](EventLoop& loop) {
    Counter counters[100];
    const FailingAllocation none(1, kAllLater);
    for (Counter& counter : counters) loop.StartPolling(counter);
    for (const int stopped : {0, 50, 99}) loop.StopPolling(counters[stopped]);
    loop.RunReady();
    int count = 0;
    for (const Counter& counter : counters) count += counter.count;
    EXPECT_EQ(count, 97);
    for (Counter& counter : counters) loop.StopPolling(counter);
  });
}

TEST(LoopAllocations, TimersNeedNoneOnceTheyAreMade) {
  WithLoop([](EventLoop& loop) {
    ManualClock clock;
    Timer once(loop);
    Timer twice(loop);
    int fired = 0;
    const FailingAllocation none(1, kAllLater);
    for (int round = 0; round < 3; ++round) {
      once.Start(std::chrono::hours(1), 1, [&fired] { fired += 1000; });
      once.Start(std::chrono::milliseconds(1), 1, [&fired] { ++fired; });
      twice.Start(std::chrono::milliseconds(1), 2, [&fired] { ++fired; });
      clock.Advance(std::chrono::milliseconds(1));
      loop.RunReady();
      clock.Advance(std::chrono::milliseconds(1));
      loop.RunReady();
    }
    EXPECT_EQ(fired, 9);
    once.Start(std::chrono::hours(1), 1, [&fired] { fired += 1000; });
    once.Cancel();
  });
}

TEST(LoopAllocations, AFewEventsMayAlwaysWait) {
  struct Event final : IAWEvent {
    explicit Event(int& fired) : count(fired) {}
    AWResult OnEventFire() override {
      ++count;
      return AW_OK;
    }
    int& count;
  };
  WithLoop([](EventLoop& loop) {
    int fired = 0;
    for (int round = 0; round < 3; ++round) {
      std::vector<IAWEvent*> events;
      for (int i = 0; i < 64; ++i) events.push_back(new Event(fired));
      const FailingAllocation none(1, kAllLater);
      for (IAWEvent* event : events) EXPECT_EQ(loop.Post(event), AW_OK);
      loop.RunReady();
    }
    EXPECT_EQ(fired, 192);
  });
}

TEST(LoopAllocations, APostWithoutMemoryIsRefused) {
  auto* manager = CAWThreadManager::Instance();
  CAWThread* task = manager->GetThread(CAWThreadManager::TT_TASK);
  ASSERT_NE(task, nullptr);
  std::function<void()> nothing = [] {};
  const zarn::test::Exhaustion none;
  EXPECT_EQ(task->Post(std::move(nothing)), AW_ERROR_FAILURE);
}

TEST(LoopAllocations, AnOwnerWithoutMemoryIsToldInTheTrace) {
  const TraceLines trace;
  TellOwner([] { throw std::bad_alloc(); });
  ASSERT_EQ(trace.Get().size(), 1U);
  EXPECT_NE(trace.Get()[0].text.find("Cannot allocate memory"), std::string::npos);
}

}  // namespace
}  // namespace keelbase::internal
