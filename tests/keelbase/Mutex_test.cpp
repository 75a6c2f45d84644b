// Mutex_test.cpp - the platform's own annotated lock.
#include "keelbase/internal/Mutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

namespace keelbase::internal {
namespace {

struct Shared {
  Mutex mutex;
  std::condition_variable condition;
  int value AW_GUARDED_BY(mutex) = 0;
};

bool CanLock(Mutex& mutex) {
  if (!mutex.TryLock()) return false;
  mutex.Unlock();
  return true;
}

bool CanLockElsewhere(Mutex& mutex) {
  bool can = false;
  std::thread([&] { can = CanLock(mutex); }).join();
  return can;
}

TEST(Mutex, ExcludesOtherThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 10000;
  Shared shared;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        MutexLock lock(shared.mutex);
        ++shared.value;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  MutexLock lock(shared.mutex);
  EXPECT_EQ(shared.value, kThreads * kRounds);
}

TEST(MutexLock, HoldsForItsScope) {
  Mutex mutex;
  {
    MutexLock lock(mutex);
    EXPECT_FALSE(CanLockElsewhere(mutex));
  }
  EXPECT_TRUE(CanLockElsewhere(mutex));
}

TEST(MutexLock, CanBeOpenedForAStretch) {
  Mutex mutex;
  {
    MutexLock lock(mutex);
    lock.Unlock();
    EXPECT_TRUE(CanLockElsewhere(mutex));
    lock.Lock();
    EXPECT_FALSE(CanLockElsewhere(mutex));
    lock.Unlock();
  }
  EXPECT_TRUE(CanLockElsewhere(mutex));
}

TEST(MutexLock, WaitLetsOthersInAndComesBackWithTheLock) {
  Shared shared;
  std::thread setter;
  {
    MutexLock lock(shared.mutex);
    setter = std::thread([&] {
      MutexLock inner(shared.mutex);
      shared.value = 42;
      shared.condition.notify_one();
    });
    while (shared.value == 0) lock.Wait(shared.condition);
    EXPECT_EQ(shared.value, 42);
  }
  setter.join();
}

}  // namespace
}  // namespace keelbase::internal
