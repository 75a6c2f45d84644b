// CAWTimer_test.cpp - timers as users see them: where they fire, and what their sink may do.
#include "keelbase/CAWTimer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "ChildTest.h"
#include "TaskThread.h"
#include "VirtualSlot.h"
#include "keelbase/CAWThreadManager.h"

namespace keelbase {
namespace {

using zarn::test::ChildTest;
using zarn::test::TaskThread;

class Sink final : public CAWTimerWrapperIDSink {
 public:
  explicit Sink(std::function<void(CAWTimerWrapperID*)> function)
      : function_(std::move(function)) {}
  void OnTimer(CAWTimerWrapperID* timer) override { function_(timer); }

 private:
  std::function<void(CAWTimerWrapperID*)> function_;
};

template <class Value>
Value Get(std::promise<Value>& promise) {
  auto future = promise.get_future();
  EXPECT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  return future.get();
}

TEST(CAWTimer, FiresOnTheNetworkThreadForOtherThreads) {
  std::promise<bool> where;
  CAWTimerWrapperID timer;
  Sink sink([&](CAWTimerWrapperID* fired) {
    EXPECT_EQ(fired, &timer);
    auto* network = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK);
    where.set_value(network->IsCurrent());
  });
  EXPECT_FALSE(timer.IsScheduled());
  EXPECT_EQ(timer.Schedule(&sink, CAWTimeValue(0, 1000), 1), AW_OK);
  EXPECT_TRUE(Get(where));
  EXPECT_EQ(timer.Cancel(), AW_OK);
}

TEST(CAWTimer, FiresOnThePlatformThreadThatScheduledIt) {
  std::promise<bool> where;
  Sink sink([&](CAWTimerWrapperID*) { where.set_value(TaskThread()->IsCurrent()); });
  std::unique_ptr<CAWTimerWrapperID> timer;
  TaskThread()->Call([&] {
    timer = std::make_unique<CAWTimerWrapperID>();
    EXPECT_EQ(timer->Schedule(&sink, CAWTimeValue(0, 1000), 1), AW_OK);
  });
  EXPECT_TRUE(Get(where));
  TaskThread()->Call([&] { timer.reset(); });
}

TEST(CAWTimer, MovesToTheThreadThatSchedulesItNext) {
  CAWTimerWrapperID timer;
  Sink never([](CAWTimerWrapperID*) { ADD_FAILURE() << "was replaced"; });
  std::promise<bool> where;
  Sink sink([&](CAWTimerWrapperID*) { where.set_value(TaskThread()->IsCurrent()); });
  EXPECT_EQ(timer.Schedule(&never, CAWTimeValue(3600)), AW_OK);
  TaskThread()->Call([&] { EXPECT_EQ(timer.Schedule(&sink, CAWTimeValue(0, 1), 1), AW_OK); });
  EXPECT_TRUE(Get(where));
  timer.Cancel();
}

TEST(CAWTimer, CallbackThatRunsWhileItMovesToAnotherThreadDoesNotScheduleItAgain) {
  std::promise<void> running;
  std::promise<bool> where;
  CAWTimerWrapperID timer;
  Sink never([](CAWTimerWrapperID*) { ADD_FAILURE() << "was replaced"; });
  Sink last([&](CAWTimerWrapperID*) { where.set_value(TaskThread()->IsCurrent()); });
  Sink first([&](CAWTimerWrapperID* fired) {
    running.set_value();
    while (fired->IsScheduled()) std::this_thread::yield();
    fired->Schedule(&never, CAWTimeValue(3600));
  });
  TaskThread()->Call([&] { timer.Schedule(&first, CAWTimeValue(0, 100)); });
  Get(running);
  EXPECT_EQ(timer.Schedule(&last, CAWTimeValue(0, 100), 1), AW_OK);
  EXPECT_FALSE(Get(where));
  timer.Cancel();
}

TEST(CAWTimer, NullSinkIsRefusedAndChangesNothing) {
  CAWTimerWrapperID timer;
  Sink sink([](CAWTimerWrapperID*) {});
  EXPECT_EQ(timer.Schedule(nullptr, CAWTimeValue(1)), AW_ERROR_FAILURE);
  EXPECT_FALSE(timer.IsScheduled());
  EXPECT_EQ(timer.Schedule(&sink, CAWTimeValue(3600)), AW_OK);
  EXPECT_EQ(timer.Schedule(nullptr, CAWTimeValue(1)), AW_ERROR_FAILURE);
  EXPECT_TRUE(timer.IsScheduled());
  EXPECT_EQ(timer.Cancel(), AW_OK);
  EXPECT_FALSE(timer.IsScheduled());
  EXPECT_EQ(timer.Cancel(), AW_OK);
}

TEST(CAWTimer, CountedTimerIsDoneAfterItsLastCall) {
  std::promise<bool> done;
  int calls = 0;
  CAWTimerWrapperID timer;
  Sink sink([&](CAWTimerWrapperID* fired) {
    if (++calls == 3) done.set_value(fired->IsScheduled());
  });
  EXPECT_EQ(timer.Schedule(&sink, CAWTimeValue(0, 100), 3), AW_OK);
  EXPECT_FALSE(Get(done));
  timer.Cancel();
  EXPECT_EQ(calls, 3);
}

TEST(CAWTimer, MayBeDestroyedInItsOwnCallback) {
  std::promise<void> done;
  auto timer = std::make_unique<CAWTimerWrapperID>();
  Sink sink([&](CAWTimerWrapperID*) {
    timer.reset();
    done.set_value();
  });
  TaskThread()->Call([&] { timer->Schedule(&sink, CAWTimeValue(0, 100)); });
  Get(done);
  TaskThread()->Call([&] { EXPECT_EQ(timer, nullptr); });
}

TEST(CAWTimer, MayBeCancelledInItsOwnCallbackByWhatActsInPlaceOnAStoppedThread) {
  if (ChildTest::Role() == "in place") {
    ::alarm(60);
    auto* manager = CAWThreadManager::Instance();
    manager->AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    CAWThread* main = manager->GetThread(CAWThreadManager::TT_MAIN);
    main->Stop();
    main->Run();
    std::promise<bool> cancelled;
    CAWTimerWrapperID timer;
    Sink sink([&](CAWTimerWrapperID* fired) {
      main->Call([&] { fired->Cancel(); });
      cancelled.set_value(true);
    });
    TaskThread()->Call([&] { timer.Schedule(&sink, CAWTimeValue(0, 100)); });
    std::_Exit(cancelled.get_future().get() ? 7 : 1);
  }
  ChildTest child("in place");
  EXPECT_EQ(child.Wait(), 7) << child.GetErrors();
}

TEST(CAWTimer, MayBeScheduledAgainInItsOwnCallback) {
  std::promise<void> done;
  CAWTimerWrapperID timer;
  Sink second([&](CAWTimerWrapperID*) { done.set_value(); });
  Sink first([&](CAWTimerWrapperID* fired) {
    EXPECT_EQ(fired->Schedule(&second, CAWTimeValue(0, 100), 1), AW_OK);
  });
  TaskThread()->Call([&] { timer.Schedule(&first, CAWTimeValue(0, 100)); });
  Get(done);
  TaskThread()->Call([&] { timer.Cancel(); });
}

TEST(CAWTimer, VirtualFunctionOfTheSinkKeepsItsSlot) {
  EXPECT_EQ(zarn::test::VirtualSlot(&CAWTimerWrapperIDSink::OnTimer), 0);
}

}  // namespace
}  // namespace keelbase
