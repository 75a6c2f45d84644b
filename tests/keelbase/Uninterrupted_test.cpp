// Uninterrupted_test.cpp - the system calls are functions of the test.
#include "keelbase/internal/Uninterrupted.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace keelbase::internal {
namespace {

TEST(Uninterrupted, CallsAgainUntilNoSignalInterrupts) {
  int calls = 0;
  const auto call = [&] {
    errno = EINTR;
    return ++calls < 3 ? -1 : 7;
  };
  EXPECT_EQ(Uninterrupted(call), 7);
  EXPECT_EQ(calls, 3);
}

TEST(Uninterrupted, GivesAnyOtherErrorToItsCaller) {
  int calls = 0;
  const auto call = [&] {
    errno = EAGAIN;
    return ++calls < 3 ? -1 : 7;
  };
  EXPECT_EQ(Uninterrupted(call), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace keelbase::internal
