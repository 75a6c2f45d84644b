// PassedDescriptors_test.cpp - peers that pass descriptors to sockets that refuse them.
#include "keelbase/internal/PassedDescriptors.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "PassDescriptors.h"
#include "TempRoot.h"
#include "keelbase/internal/EndpointFile.h"

namespace keelbase::internal {
namespace {

class PassedDescriptors : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!zarn::test::DescriptorsCanBeRefused()) GTEST_SKIP() << "this system passes them anyway";
  }

  static bool Pass(const FileDescriptor& socket) {
    return zarn::test::SendWithDescriptors(socket.Get(), "x", 1, {socket.Get()});
  }

  // Of one that has just connected and that nobody has accepted.
  static bool CanPassToEndpoint(bool taken) {
    const zarn::test::TempDir directory;
    const EndpointPath path(directory.GetPath() + "/1_2");
    EndpointFile file;
    FileDescriptor listening;
    EndpointAddress address;
    if (taken) file.TakeDescriptors();
    EXPECT_EQ(file.Listen(path, listening), 0);
    EXPECT_EQ(address.Resolve(path), 0);
    const FileDescriptor peer(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(peer.Get(), address.Get(), address.Size()), 0);
    return Pass(peer);
  }
};

TEST_F(PassedDescriptors, AreRefusedOnThePeersSideWhileBytesPass) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const FileDescriptor ours(ends[0]);
  const FileDescriptor peer(ends[1]);
  EXPECT_TRUE(Pass(peer));
  RefuseDescriptors(ours.Get());
  errno = 0;
  EXPECT_FALSE(Pass(peer));
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(::send(peer.Get(), "bytes", 5, 0), 5);
}

TEST_F(PassedDescriptors, AreRefusedAtAnEndpointFromTheBeginningUnlessItTakesThem) {
  EXPECT_FALSE(CanPassToEndpoint(false));
  EXPECT_TRUE(CanPassToEndpoint(true));
}

}  // namespace
}  // namespace keelbase::internal
