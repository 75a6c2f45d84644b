// CallsInProgress_test.cpp - the end of a singleton waits for the calls that are inside it.
#include "CallsInProgress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <utility>

namespace zarn::test {
namespace {

using utils::CallsInProgress;

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
