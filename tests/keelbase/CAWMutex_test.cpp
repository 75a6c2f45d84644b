// CAWMutex_test.cpp - the mutex that answers with a result code.
#include "keelbase/CAWMutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

namespace keelbase {
namespace {

// The tests lock in orders that the compiler's analysis cannot follow.
AWResult Lock(CAWMutexThread& mutex) AW_NO_THREAD_SAFETY_ANALYSIS { return mutex.Lock(); }
AWResult UnLock(CAWMutexThread& mutex) AW_NO_THREAD_SAFETY_ANALYSIS { return mutex.UnLock(); }

TEST(CAWMutexThread, ExcludesOtherThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 10000;
  CAWMutexThread mutex;
  int counter = 0;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        if (mutex.Lock() == 0) {
          ++counter;
          mutex.UnLock();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, kThreads * kRounds);
}

TEST(CAWMutexThread, HolderLocksAgainAndUnlocksAsOften) {
  CAWMutexThread mutex;
  EXPECT_EQ(Lock(mutex), AW_OK);
  EXPECT_EQ(Lock(mutex), AW_OK);
  EXPECT_EQ(UnLock(mutex), AW_OK);
  EXPECT_EQ(UnLock(mutex), AW_OK);
  EXPECT_EQ(UnLock(mutex), AW_ERROR_FAILURE);
}

TEST(CAWMutexThread, OnlyTheHolderUnlocks) {
  CAWMutexThread mutex;
  ASSERT_EQ(Lock(mutex), AW_OK);
  AWResult result = AW_OK;
  std::thread([&] { result = UnLock(mutex); }).join();
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_EQ(UnLock(mutex), AW_OK);
}

TEST(CAWMutexThread, CannotBeCopied) {
  static_assert(!std::is_copy_constructible_v<CAWMutexThread>);
  static_assert(!std::is_copy_assignable_v<CAWMutexThread>);
  static_assert(std::is_trivially_destructible_v<CAWMutexThread>);  // usable during exit
}

}  // namespace
}  // namespace keelbase
