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

using zarn::test::DescriptorsCanBeRefused;

bool Pass(const FileDescriptor& socket) {
  return zarn::test::SendWithDescriptors(socket.Get(), "x", 1, {socket.Get()});
}

// Whether one can who has just connected and whom nobody has accepted.
bool CanPassToEndpoint(bool taken) {
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

TEST(PassedDescriptors, AreRefusedOnThePeersSideWhereTheSystemCanWhileBytesPass) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const FileDescriptor ours(ends[0]);
  const FileDescriptor peer(ends[1]);
  EXPECT_TRUE(Pass(peer));
  RefuseDescriptors(ours.Get());
  const bool refused = DescriptorsCanBeRefused();
  errno = 0;
  EXPECT_NE(Pass(peer), refused);
  EXPECT_EQ(errno, refused ? EPERM : 0);
  EXPECT_EQ(::send(peer.Get(), "bytes", 5, 0), 5);
}

TEST(PassedDescriptors, AreRefusedAtAnEndpointFromTheBeginningUnlessItTakesThem) {
  EXPECT_NE(CanPassToEndpoint(false), DescriptorsCanBeRefused());
  EXPECT_TRUE(CanPassToEndpoint(true));
}

}  // namespace
}  // namespace keelbase::internal
