// ClientNameFailingCalls_test.cpp - a system that gives no random bytes.
#include <gtest/gtest.h>

#include <cerrno>

#include "ClientName.h"
#include "FailingCalls.h"

namespace fipc {
namespace {

TEST(ClientNameFailingCalls, WithoutRandomBytesThereIsNoName) {
  const zarn::test::FailingCalls failing("getrandom", ENOSYS);
  EXPECT_FALSE(MakeClientName("1_2"));
  EXPECT_EQ(failing.GetFailed(), 1);
}

}  // namespace
}  // namespace fipc
