// CAWSocketUdp_test.cpp - UDP sockets on the loopback interface.
#include "keelbase/CAWSocketUdp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <type_traits>

namespace keelbase {
namespace {

const CAWInetAddr kLoopback("127.0.0.1", 0);

TEST(CAWSocketUdp, OpenBindsToAFreePort) {
  CAWSocketUdp udp;
  ASSERT_EQ(udp.Open(kLoopback), AW_OK);
  CAWInetAddr local;
  ASSERT_EQ(udp.GetLocalAddr(local), AW_OK);
  EXPECT_EQ(local.GetIpDisplayName(), "127.0.0.1");
  EXPECT_NE(local.GetPort(), 0);
}

TEST(CAWSocketUdp, CarriesADatagram) {
  CAWSocketUdp from;
  CAWSocketUdp to;
  ASSERT_EQ(from.Open(kLoopback), AW_OK);
  ASSERT_EQ(to.Open(kLoopback), AW_OK);
  CAWInetAddr peer;
  ASSERT_EQ(to.GetLocalAddr(peer), AW_OK);
  ASSERT_EQ(::sendto(from.GetHandle(), "hello", 5, 0, peer.GetPtr(), peer.GetSize()), 5);
  char buffer[16];
  ASSERT_EQ(::recv(to.GetHandle(), buffer, sizeof(buffer), 0), 5);
  EXPECT_EQ(CAWString(buffer, 5), "hello");
}

TEST(CAWSocketUdp, IsClosedOnExec) {
  CAWSocketUdp udp;
  ASSERT_EQ(udp.Open(kLoopback), AW_OK);
  EXPECT_EQ(::fcntl(udp.GetHandle(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(CAWSocketUdp, PortInUseIsReportedAndLeavesItClosed) {
  CAWSocketUdp first;
  ASSERT_EQ(first.Open(kLoopback), AW_OK);
  CAWInetAddr taken;
  ASSERT_EQ(first.GetLocalAddr(taken), AW_OK);
  CAWSocketUdp second;
  EXPECT_EQ(second.Open(taken), static_cast<AWResult>(EADDRINUSE));
  EXPECT_EQ(second.GetHandle(), -1);
  first.Close();
  EXPECT_EQ(second.Open(taken), AW_OK);
}

TEST(CAWSocketUdp, SecondOpenIsRefusedAndKeepsTheFirst) {
  CAWSocketUdp udp;
  ASSERT_EQ(udp.Open(kLoopback), AW_OK);
  const int handle = udp.GetHandle();
  EXPECT_EQ(udp.Open(kLoopback), AW_ERROR_FAILURE);
  EXPECT_EQ(udp.GetHandle(), handle);
  CAWInetAddr local;
  EXPECT_EQ(udp.GetLocalAddr(local), AW_OK);
}

TEST(CAWSocketUdp, ClosedSocketHasNoHandleAndNoAddress) {
  CAWSocketUdp udp;
  CAWInetAddr local("1.2.3.4", 5);
  EXPECT_EQ(udp.GetHandle(), -1);
  EXPECT_EQ(udp.GetLocalAddr(local), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(local, CAWInetAddr("1.2.3.4", 5));
  ASSERT_EQ(udp.Open(kLoopback), AW_OK);
  const int handle = udp.GetHandle();
  EXPECT_EQ(udp.Close(), AW_OK);
  EXPECT_EQ(udp.Close(), AW_OK);
  EXPECT_EQ(udp.GetHandle(), -1);
  EXPECT_EQ(::fcntl(handle, F_GETFD), -1);
}

TEST(CAWSocketUdp, DestructorClosesAndCopiesDoNotExist) {
  static_assert(!std::is_copy_constructible_v<CAWSocketUdp>);
  int handle = -1;
  {
    CAWSocketUdp udp;
    ASSERT_EQ(udp.Open(kLoopback), AW_OK);
    handle = udp.GetHandle();
  }
  EXPECT_EQ(::fcntl(handle, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace keelbase
