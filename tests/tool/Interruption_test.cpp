// Interruption_test.cpp - when the program zarn takes a signal for the one before, sent twice.
#include "../../tools/zarn/Interruption.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

namespace zarn::tool {
namespace {

using std::chrono::milliseconds;

EndingSignal Signal(int number, pid_t sender, milliseconds at) {
  EndingSignal signal;
  signal.number = number;
  signal.sender = sender;
  signal.at += at;
  return signal;
}

TEST(IsSentTwice, HoldsForTheSameSignalOfTheSameProcessWithinASecond) {
  const EndingSignal first = Signal(SIGTERM, 7, milliseconds(5000));
  EXPECT_TRUE(IsSentTwice(first, Signal(SIGTERM, 7, milliseconds(5000))));
  EXPECT_TRUE(IsSentTwice(first, Signal(SIGTERM, 7, milliseconds(5999))));
  EXPECT_FALSE(IsSentTwice(first, Signal(SIGTERM, 7, milliseconds(6000))));
}

TEST(IsSentTwice, DoesNotHoldForAnotherSignalOrAnotherProcess) {
  const EndingSignal first = Signal(SIGTERM, 7, milliseconds(0));
  EXPECT_FALSE(IsSentTwice(first, Signal(SIGINT, 7, milliseconds(0))));
  EXPECT_FALSE(IsSentTwice(first, Signal(SIGTERM, 8, milliseconds(0))));
}

TEST(IsSentTwice, DoesNotHoldForTheKeyboardHoweverFastItIs) {
  const EndingSignal first = Signal(SIGINT, 0, milliseconds(0));
  EXPECT_FALSE(IsSentTwice(first, Signal(SIGINT, 0, milliseconds(100))));
}

}  // namespace
}  // namespace zarn::tool
