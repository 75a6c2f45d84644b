// CTORVManager_test.cpp - the broadcast, which has no free function, and the locks around a call.
#include "zarn/utils/CTORVManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "CallsInProgress.h"
#include "LockForCall.h"
#include "TorvSink.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using utils::CallsInProgress;
using utils::CTORVManager;
using utils::LockForCall;

TEST(TorvManager, ThereIsOneHoweverManyAskAtOnce) {
  std::vector<CTORVManager*> got(8);
  std::vector<std::thread> threads;
  for (CTORVManager*& place : got)
    threads.emplace_back([&place] { place = CTORVManager::Instance(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<CTORVManager*>(got.begin(), got.end()).size(), 1U);
}

TEST(TorvManager, BroadcastReachesEverybodyWithoutAContext) {
  CTORVManager& manager = *CTORVManager::Instance();
  RecordingSink& one = RecordingSink::Make();
  RecordingSink& two = RecordingSink::Make();
  int context = 0;
  ASSERT_EQ(manager.TORVInit(&one, nullptr), AW_OK);
  ASSERT_EQ(manager.TORVInit(&two, nullptr), AW_OK);
  ASSERT_EQ(manager.TORVRegisterTno(&one, 5, &context), AW_OK);
  CAWMessageBlock block("all", 3, CAWMessageBlock::borrow);
  EXPECT_EQ(manager.SendTORVMessage(block, 12), AW_OK);
  for (RecordingSink* sink : {&one, &two}) {
    EXPECT_EQ(sink->Told(), "all");
    ASSERT_EQ(sink->deliveries.size(), 1U);
    EXPECT_EQ(sink->deliveries[0].number, 12);
    EXPECT_EQ(sink->deliveries[0].pointer, nullptr);
  }
}

TEST(TorvManager, BroadcastWithoutReceiversAnswers0) {
  CAWMessageBlock block("none", 4, CAWMessageBlock::borrow);
  EXPECT_EQ(CTORVManager::Instance()->SendTORVMessage(block, 1), AW_OK);
}

TEST(TorvManager, HasNoVirtualOperations) { EXPECT_FALSE(std::is_polymorphic_v<CTORVManager>); }

// --- the lock of a call ---

class FickleLock {
 public:
  explicit FickleLock(AWResult answer) : answer_(answer) {}
  AWResult Lock() { return answer_; }
  AWResult UnLock() {
    ++unlocks;
    return AW_OK;
  }
  int unlocks = 0;

 private:
  AWResult answer_;
};

TEST(LockForCall, IsUnlockedOnceWhenItWasLocked) {
  FickleLock lock(AW_OK);
  {
    const LockForCall<FickleLock> held(lock);
    EXPECT_EQ(lock.unlocks, 0);
  }
  EXPECT_EQ(lock.unlocks, 1);
}

TEST(LockForCall, GoesOnWithoutALockThatFailsAndDoesNotUnlockIt) {
  FickleLock lock(AW_ERROR_FAILURE);
  bool ran = false;
  {
    const LockForCall<FickleLock> held(lock);
    ran = true;
  }
  EXPECT_TRUE(ran);
  EXPECT_EQ(lock.unlocks, 0);
}

// --- waiting for calls ---

TEST(CallsInProgress, NobodyIsWaitedForWhenThereAreNoCalls) {
  CallsInProgress calls;
  { const CallsInProgress::Call call(calls); }
  calls.WaitForEarlierOnes();
}

TEST(CallsInProgress, EndWaitsForTheCallThatIsInside) {
  CallsInProgress calls;
  std::atomic<bool> inside{false};
  std::atomic<bool> released{false};
  int written = 0;
  std::thread caller([&] {
    const CallsInProgress::Call call(calls);
    inside = true;
    while (!released) std::this_thread::yield();
    written = 1;  // no race with the look below: the wait orders them
  });
  while (!inside) std::this_thread::yield();
  std::thread releaser([&] { released = true; });
  calls.WaitForEarlierOnes();
  EXPECT_EQ(written, 1);
  releaser.join();
  caller.join();
}

TEST(CallsInProgress, CallsWithoutAGapBetweenThemDoNotHoldTheEnd) {
  CallsInProgress calls;
  std::optional<CallsInProgress::Call> even(std::in_place, calls);
  std::optional<CallsInProgress::Call> odd;
  std::atomic<bool> over{false};
  std::thread end([&] {
    calls.WaitForEarlierOnes();
    over = true;
  });
  while (!over) {
    odd.emplace(calls);
    even.reset();
    even.emplace(calls);
    odd.reset();
  }
  end.join();
}

}  // namespace
}  // namespace zarn::test
