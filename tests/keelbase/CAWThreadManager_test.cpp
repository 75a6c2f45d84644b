// CAWThreadManager_test.cpp - the typed threads of a process. What concerns a whole process, its
// exit included, runs in a child of its own.
#include "keelbase/CAWThreadManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChildTest.h"
#include "DescriptorShortage.h"
#include "ExitingChild.h"
#include "ThreadShortage.h"
#include "TraceLines.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/TimerQueue.h"

namespace keelbase {
namespace {

using zarn::test::ChildTest;
using zarn::test::ExitInChild;

CAWThreadManager& Manager() { return *CAWThreadManager::Instance(); }

// Runs `body` in a process that has no platform threads yet; it ends by exit(0).
template <class Body>
void InNewProcess(Body&& body) {
  if (ChildTest::Role() == "new") {
    body();
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  ChildTest child("new");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

TEST(CAWThreadManager, TypesWithoutAThreadGiveNull) {
  EXPECT_EQ(Manager().GetThread(0), nullptr);
  EXPECT_EQ(Manager().GetThread(4), nullptr);
  EXPECT_EQ(Manager().GetThread(-1), nullptr);
  EXPECT_EQ(Manager().GetThread(CAWThreadManager::TT_MAIN), nullptr);
  EXPECT_EQ(Manager().AdoptCurrentThread(0), AW_ERROR_FAILURE);
  EXPECT_EQ(Manager().AdoptCurrentThread(4), AW_ERROR_FAILURE);
}

TEST(CAWThreadManager, NetworkAndTaskThreadStartOnFirstUse) {
  CAWThread* network = Manager().GetThread(CAWThreadManager::TT_NETWORK);
  CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
  ASSERT_NE(network, nullptr);
  ASSERT_NE(task, nullptr);
  EXPECT_NE(network, task);
  EXPECT_EQ(Manager().GetThread(CAWThreadManager::TT_NETWORK), network);
  EXPECT_FALSE(network->IsCurrent());
  EXPECT_TRUE(network->Call([&] { return network->IsCurrent() && !task->IsCurrent(); }));
  EXPECT_EQ(network->Run(), AW_ERROR_FAILURE);
}

TEST(CAWThreadManager, AllWhoAskAtOnceGetTheSameThread) {
  InNewProcess([] {
    std::vector<CAWThread*> got(8);
    std::vector<std::thread> threads;
    for (CAWThread*& place : got)
      threads.emplace_back([&place] { place = Manager().GetThread(CAWThreadManager::TT_TASK); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::set<CAWThread*>(got.begin(), got.end()).size(), 1U);
    EXPECT_NE(got[0], nullptr);
  });
}

TEST(CAWThreadManager, AdoptedThreadServesItsQueueUntilStopped) {
  InNewProcess([] {
    EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN), AW_OK);
    CAWThread* main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    ASSERT_NE(main, nullptr);
    EXPECT_TRUE(main->IsCurrent());
    std::string log;
    EXPECT_EQ(main->Post([&] { log += "a"; }), AW_OK);
    std::thread other([&] {
      EXPECT_EQ(main->Call([&] { return log += "b"; }), "ab");
      main->Stop();
    });
    EXPECT_EQ(main->Run(), AW_OK);
    other.join();
    EXPECT_EQ(log, "ab");
  });
}

TEST(CAWThreadManager, AdoptedThreadServesWhatWasPostedBetweenTwoRuns) {
  InNewProcess([] {
    Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    CAWThread* main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    bool served = false;
    for (int i = 0; i < 2; ++i) {
      EXPECT_FALSE(main->IsServing());
      EXPECT_EQ(main->Post([&] { served = main->IsServing(); }), AW_OK);
      EXPECT_EQ(main->Post([&] { main->Stop(); }), AW_OK);
      main->Run();
      EXPECT_TRUE(std::exchange(served, false));
    }
  });
}

TEST(CAWThreadManager, ThreadIsAdoptedOnceAndForOneType) {
  InNewProcess([] {
    EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_NETWORK), AW_OK);
    EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_TASK), AW_ERROR_FAILURE);
    std::thread([] {
      EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_NETWORK), AW_ERROR_FAILURE);
      EXPECT_FALSE(Manager().GetThread(CAWThreadManager::TT_NETWORK)->IsCurrent());
    }).join();
  });
}

TEST(CAWThreadManager, StartedThreadIsNotReplacedByAnAdoptionWhichIsTraced) {
  InNewProcess([] {
    EXPECT_NE(Manager().GetThread(CAWThreadManager::TT_TASK), nullptr);
    const zarn::test::TraceLines trace;
    EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_TASK), AW_ERROR_FAILURE);
    ASSERT_EQ(trace.Get().size(), 1U);
    EXPECT_EQ(trace.Get()[0].text,
              "AdoptCurrentThread: that type has its thread; adopt before anything is made that "
              "needs it");
  });
}

TEST(CAWThreadManager, RunOnAnotherThreadIsRefusedAndTraced) {
  InNewProcess([] {
    const zarn::test::TraceLines trace;
    EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN), AW_OK);
    CAWThread* main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    std::thread([&] { EXPECT_EQ(main->Run(), AW_ERROR_FAILURE); }).join();
    ASSERT_EQ(trace.Get().size(), 1U);
    EXPECT_EQ(trace.Get()[0].text,
              "CAWThread::Run: only the adopted thread may call it, and once at a time");
  });
}

TEST(CAWThreadManager, CallbacksComeOnTheCallersThreadOrTheNetworkThread) {
  CAWThread* network = Manager().GetThread(CAWThreadManager::TT_NETWORK);
  CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
  EXPECT_EQ(Manager().GetCurrentOrNetwork(), network);
  EXPECT_EQ(task->Call([] { return Manager().GetCurrentOrNetwork(); }), task);
}

TEST(CAWThreadManager, NoThreadWithoutDescriptorsAndOneAgainLater) {
  InNewProcess([] {
    {
      const zarn::test::DescriptorShortage shortage;
      EXPECT_EQ(Manager().GetThread(CAWThreadManager::TT_NETWORK), nullptr);
      EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN), AW_ERROR_FAILURE);
    }
    EXPECT_NE(Manager().GetThread(CAWThreadManager::TT_NETWORK), nullptr);
    EXPECT_EQ(Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN), AW_OK);
  });
}

TEST(CAWThreadManager, NoneWhenTheSystemGivesNoThreadAndOneAgainLater) {
  InNewProcess([] {
    {
      const zarn::test::ThreadShortage shortage;
      EXPECT_EQ(Manager().GetThread(CAWThreadManager::TT_NETWORK), nullptr);
    }
    EXPECT_NE(Manager().GetThread(CAWThreadManager::TT_NETWORK), nullptr);
  });
}

TEST(CAWThreadManager, ProcessEndsWithThreadsThatWork) {
  InNewProcess([] {
    for (const int type : {CAWThreadManager::TT_NETWORK, CAWThreadManager::TT_TASK}) {
      CAWThread* thread = Manager().GetThread(type);
      for (int i = 0; i < 1000; ++i) thread->Post([] { std::this_thread::yield(); });
    }
  });
}

TEST(CAWThreadManager, ProcessMayEndInsideACallback) {
  if (ChildTest::Role() == "network") {
    Manager().GetThread(CAWThreadManager::TT_TASK);
    Manager().GetThread(CAWThreadManager::TT_NETWORK)->Call([] { std::exit(7); });
  }
  if (ChildTest::Role() == "adopted") {
    Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    CAWThread* main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    main->Post([] { std::exit(7); });
    main->Run();
  }
  for (const char* role : {"network", "adopted"}) {
    ChildTest child(role);
    EXPECT_EQ(child.Wait(), 7) << role << child.GetErrors();
  }
}

// A process that does not end is ended by its alarm.
TEST(CAWThreadManager, ProcessMayEndOnAThreadForWhichAnotherWaits) {
  std::atomic<bool> waiting{false};
  const auto exitSoon = [&waiting](int code) {
    ::alarm(30);
    while (!waiting) std::this_thread::yield();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    std::exit(code);
  };
  CAWThread* network = Manager().GetThread(CAWThreadManager::TT_NETWORK);
  CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
  if (ChildTest::Role() == "call") {
    task->Post([&] { exitSoon(7); });
    network->Post([&] {
      waiting = true;
      task->Call([] {});
    });
    for (;;) ::pause();
  }
  if (ChildTest::Role() == "timer") {
    internal::Timer timer(network->GetLoop());
    timer.Start(std::chrono::microseconds(1), 1, [&] { exitSoon(7); });
    while (timer.IsActive()) std::this_thread::yield();
    task->Post([&] {
      waiting = true;
      timer.Cancel();
    });
    for (;;) ::pause();
  }
  if (ChildTest::Role() == "called") {
    task->Post([&] {
      waiting = true;
      network->Call([&] { exitSoon(7); });
    });
    for (;;) ::pause();
  }
  for (const char* role : {"call", "timer", "called"}) {
    ChildTest child(role);
    EXPECT_EQ(child.Wait(), 7) << role << child.GetErrors();
  }
}

// A process that does not end is ended by its alarm.
TEST(CAWThreadManager, ProcessEndsAlthoughSomebodyStaysInPlaceOnAStoppedThread) {
  if (ChildTest::Role() == "stays") {
    ::alarm(60);
    Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    CAWThread* main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    main->Stop();
    main->Run();
    std::promise<void> inside;
    std::thread([main, &inside] {
      main->Call([&] {
        inside.set_value();
        for (;;) ::pause();
      });
    }).detach();
    inside.get_future().wait();
    std::exit(7);
  }
  ChildTest child("stays");
  EXPECT_EQ(child.Wait(), 7) << child.GetErrors();
}

class SayingTurnEnd final : public internal::TurnEndTask {
 public:
  void OnTurnEnd() override { std::fputs("[written]", stderr); }
};

TEST(CAWThreadManager, WhatWasGatheredInTheTurnThatEndsTheProcessIsWritten) {
  SayingTurnEnd gathered;
  const auto gatherAndExit = [&gathered](CAWThread* thread) {
    thread->Post([thread, &gathered] {
      thread->GetLoop().AtTurnEnd(gathered);
      std::exit(0);
    });
  };
  if (ChildTest::Role() == "network") {
    gatherAndExit(Manager().GetThread(CAWThreadManager::TT_NETWORK));
    for (;;) ::pause();
  }
  if (ChildTest::Role() == "adopted") {
    Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    CAWThread* main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    gatherAndExit(main);
    main->Run();
  }
  for (const char* role : {"network", "adopted"}) {
    ChildTest child(role);
    EXPECT_EQ(child.Wait(), 0) << role;
    EXPECT_NE(child.GetErrors().find("[written]"), std::string::npos) << role << child.GetErrors();
  }
}

TEST(CAWThreadManager, WhatWasGatheredIsNotWrittenByAForkedChildToo) {
  if (ChildTest::Role() == "adopted") {
    SayingTurnEnd gathered;
    Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    CAWThread* main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    main->Post([&] {
      main->GetLoop().AtTurnEnd(gathered);
      EXPECT_TRUE(ExitInChild([] {}));
      main->Stop();
    });
    main->Run();
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  ChildTest child("adopted");
  EXPECT_EQ(child.Wait(), 0);
  const std::string output = child.GetErrors();
  EXPECT_NE(output.find("[written]"), std::string::npos) << output;
  EXPECT_EQ(output.find("[written]"), output.rfind("[written]")) << output;
}

TEST(CAWThreadManager, AForkedChildThatExitsWaitsForNoThreadOfItsParent) {
  InNewProcess([] {
    CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
    EXPECT_TRUE(ExitInChild([task] { task->Call([] {}); }));
    EXPECT_EQ(task->Call([] { return 1; }), 1);
  });
}

class SayingLinger final : public internal::LingerTask {
 public:
  explicit SayingLinger(internal::EventLoop& loop) : loop_(loop) {}

 private:
  int LingerDescriptor() const override { return STDERR_FILENO; }
  internal::Clock::Point LingerDeadline() const override {
    return internal::Clock::Now() + std::chrono::seconds(20);
  }
  void WriteLingering() override {
    std::fputs("[written]", stderr);
    loop_.EndLinger(*this);
  }
  void AbandonLinger() override { loop_.EndLinger(*this); }

  internal::EventLoop& loop_;
};

TEST(CAWThreadManager, WhatLingersIsWrittenAlsoWhenTheLoopStopsWhileTheProcessEnds) {
  if (ChildTest::Role() == "stopping") {
    std::promise<CAWThread*> inside;
    std::atomic<bool> exiting{false};
    std::thread([&inside, &exiting] {
      Manager().AdoptCurrentThread(CAWThreadManager::TT_NETWORK);
      CAWThread* network = Manager().GetThread(CAWThreadManager::TT_NETWORK);
      SayingLinger linger(network->GetLoop());
      network->Post([&] {
        network->GetLoop().BeginLinger(linger);
        inside.set_value(network);
        while (!exiting) std::this_thread::yield();
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      });
      network->Run();
      for (;;) ::pause();
    }).detach();
    inside.get_future().get()->Stop();
    exiting = true;
    std::exit(7);
  }
  ChildTest child("stopping");
  EXPECT_EQ(child.Wait(), 7);
  EXPECT_NE(child.GetErrors().find("[written]"), std::string::npos) << child.GetErrors();
}

class CalleeInterface {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

 protected:
  virtual ~CalleeInterface() = default;
};

// What a transport asks before it calls its sink.
class Callee final : public internal::LoopObject<CalleeInterface> {
 public:
  explicit Callee(CAWThread& thread) : LoopObject(thread.GetLoop()) {}
  bool IsCalledBack() { return static_cast<bool>(Hold()); }
};

TEST(CAWThreadManager, NobodyIsCalledBackOnceItsThreadsHaveStopped) {
  if (ChildTest::Role() == "ends") {
    static CAWAutoPtr<Callee> callee;
    std::atexit([] { ::_exit(callee->IsCalledBack() ? 1 : 0); });
    callee = new Callee(*Manager().GetThread(CAWThreadManager::TT_NETWORK));
    if (!callee->IsCalledBack()) ::_exit(2);
    std::exit(3);
  }
  ChildTest child("ends");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

// So a static object may still say goodbye and wait for the answer.
TEST(CAWThreadManager, WhoRunsAnAdoptedLoopAgainWhileTheProcessEndsIsCalledBack) {
  if (ChildTest::Role() == "ends") {
    static CAWThread* main = nullptr;
    std::atexit([] {
      const CAWAutoPtr<Callee> callee(new Callee(*main));
      bool called = false;
      internal::Timer timer(main->GetLoop());
      timer.Start(std::chrono::microseconds(1), 1, [&] {
        called = callee->IsCalledBack();
        main->Stop();
      });
      const AWResult result = main->Run();
      ::_exit(result == AW_OK && called ? 0 : 1);
    });
    Manager().AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    main = Manager().GetThread(CAWThreadManager::TT_MAIN);
    main->Post([] { main->Stop(); });
    main->Run();
    std::exit(3);
  }
  ChildTest child("ends");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

TEST(CAWThreadManager, NothingStartsOnceTheProcessEnds) {
  if (ChildTest::Role() == "late") {
    std::atexit([] {
      if (Manager().GetThread(CAWThreadManager::TT_NETWORK) != nullptr) ::_exit(1);
      CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
      int calls = 0;
      task->Call([&] { ++calls; });
      if (calls != 1 || task->Post([] {}) != AW_ERROR_FAILURE) ::_exit(2);
    });
    Manager().GetThread(CAWThreadManager::TT_TASK);  // the chain runs before the function above
    std::exit(0);
  }
  ChildTest child("late");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

TEST(CAWThreadManager, SingletonMutexIsRecursive) {
  std::thread([]() AW_NO_THREAD_SAFETY_ANALYSIS {
    CAWMutexThread& mutex = Manager().GetSingletonMutex();
    EXPECT_EQ(&mutex, &Manager().GetSingletonMutex());
    EXPECT_EQ(mutex.Lock(), 0U);
    EXPECT_EQ(mutex.Lock(), 0U);
    EXPECT_EQ(mutex.UnLock(), 0U);
    EXPECT_EQ(mutex.UnLock(), 0U);
  }).join();
}

// --- CAWThread's own conveniences ---

TEST(CAWThread, CallReturnsValuesOfAnyKind) {
  CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
  EXPECT_EQ(task->Call([] { return 42; }), 42);
  EXPECT_EQ(task->Call([] { return std::string("text"); }), "text");
  auto pointer = task->Call([] { return std::make_unique<int>(5); });
  EXPECT_EQ(*pointer, 5);
  int calls = 0;
  task->Call([&] { ++calls; });
  EXPECT_EQ(calls, 1);
}

TEST(CAWThread, StopLeavesAStartedThreadAlone) {
  CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
  ASSERT_NE(task, nullptr);
  task->Stop();
  EXPECT_TRUE(task->Call([task] { return task->IsCurrent(); }));
}

TEST(CAWThread, CallNestsAndPassesExceptionsOn) {
  CAWThread* task = Manager().GetThread(CAWThreadManager::TT_TASK);
  const auto nested = [&] { return task->Call([] { return 1; }); };
  EXPECT_EQ(task->Call(nested), 1);
  EXPECT_THROW(task->Call([]() -> int { throw std::runtime_error("no"); }), std::runtime_error);
}

}  // namespace
}  // namespace keelbase
