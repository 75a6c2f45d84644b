// Mutex_test.cpp - the platform's own annotated lock.
#include "keelbase/internal/Mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <thread>
#include <vector>

namespace keelbase::internal {
namespace {

struct Shared {
  Mutex mutex;
  std::condition_variable condition;
  int value AW_GUARDED_BY(mutex) = 0;
};

// Several threads call `work(inside)`, which calls `inside` with the lock held. How often did one
// meet another there?
template <class Work>
int CountMeetings(Work work) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 1000;
  std::atomic<int> present{0};
  std::atomic<int> meetings{0};
  const auto inside = [&] {
    if (present.fetch_add(1) != 0) ++meetings;
    std::this_thread::yield();
    present.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) work(inside);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return meetings;
}

// Waits until it could.
void LockElsewhere(Mutex& mutex) {
  std::thread([&] { MutexLock lock(mutex); }).join();
}

TEST(MutexLock, ExcludesOtherThreadsForItsScope) {
  Mutex mutex;
  const int meetings = CountMeetings([&](auto& inside) {
    MutexLock lock(mutex);
    inside();
  });
  EXPECT_EQ(meetings, 0);
}

TEST(MutexLock, ExcludesOtherThreadsAgainAfterAStretchThatWasOpen) {
  Mutex mutex;
  const int meetings = CountMeetings([&](auto& inside) {
    MutexLock lock(mutex);
    lock.Unlock();
    lock.Lock();
    inside();
  });
  EXPECT_EQ(meetings, 0);
}

TEST(MutexLock, LetsOthersInWhileItIsOpenAndAfterItsScope) {
  Mutex mutex;
  {
    MutexLock lock(mutex);
    lock.Unlock();
    LockElsewhere(mutex);
    lock.Lock();
  }
  LockElsewhere(mutex);
  {
    MutexLock lock(mutex);
    lock.Unlock();
  }
  LockElsewhere(mutex);
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
