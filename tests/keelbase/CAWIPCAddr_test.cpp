// CAWIPCAddr_test.cpp - addresses of local IPC endpoints.
#include "keelbase/CAWIPCAddr.h"

#include <gtest/gtest.h>

namespace keelbase {
namespace {

TEST(CAWIPCAddr, KeepsThePathAsGiven) {
  EXPECT_EQ(CAWIPCAddr("/a//b/../1_2").GetPath(), "/a//b/../1_2");
  EXPECT_EQ(CAWIPCAddr().GetPath(), "");
}

TEST(CAWIPCAddr, IsEqualWhenThePathsAreTheSameText) {
  EXPECT_TRUE(CAWIPCAddr("/a/1_2") == CAWIPCAddr("/a/1_2"));
  EXPECT_FALSE(CAWIPCAddr("/a/1_2") != CAWIPCAddr("/a/1_2"));
  EXPECT_TRUE(CAWIPCAddr("/a/1_2") != CAWIPCAddr("/a//1_2"));
  EXPECT_FALSE(CAWIPCAddr("/a/1_2") == CAWIPCAddr("/a//1_2"));
  EXPECT_TRUE(CAWIPCAddr() == CAWIPCAddr(""));
}

}  // namespace
}  // namespace keelbase
