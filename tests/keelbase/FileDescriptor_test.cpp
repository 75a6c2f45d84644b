// FileDescriptor_test.cpp - the owner of a file descriptor.
#include "keelbase/internal/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace keelbase::internal {
namespace {

int OpenSomething() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }
bool IsOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; }

TEST(FileDescriptor, ClosesWhatItOwns) {
  const int raw = OpenSomething();
  {
    const FileDescriptor owner(raw);
    EXPECT_TRUE(owner);
    EXPECT_EQ(owner.Get(), raw);
    EXPECT_TRUE(IsOpen(raw));
  }
  EXPECT_FALSE(IsOpen(raw));
}

TEST(FileDescriptor, OwnsNothingByDefaultAndAfterAFailedOpen) {
  EXPECT_FALSE(FileDescriptor());
  EXPECT_FALSE(FileDescriptor(-1));
  EXPECT_EQ(FileDescriptor().Get(), -1);
}

TEST(FileDescriptor, MovingHandsItOver) {
  FileDescriptor from(OpenSomething());
  const int raw = from.Get();
  FileDescriptor to(std::move(from));
  EXPECT_EQ(to.Get(), raw);
  FileDescriptor other(OpenSomething());
  const int replaced = other.Get();
  other = std::move(to);
  EXPECT_EQ(other.Get(), raw);
  EXPECT_FALSE(IsOpen(replaced));
  EXPECT_TRUE(IsOpen(raw));
}

TEST(FileDescriptor, ResetClosesAndReleaseDoesNot) {
  FileDescriptor owner(OpenSomething());
  const int first = owner.Get();
  owner.Reset();
  EXPECT_FALSE(IsOpen(first));
  owner.Reset(OpenSomething());
  const int second = owner.Release();
  EXPECT_FALSE(owner);
  EXPECT_TRUE(IsOpen(second));
  ::close(second);
}

}  // namespace
}  // namespace keelbase::internal
