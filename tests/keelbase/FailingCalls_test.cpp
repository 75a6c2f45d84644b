// FailingCalls_test.cpp - system calls that fail: those of the loop, of a listener's file, of a
// segment and of a UDP socket.
#include "FailingCalls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>

#include "LoopThread.h"
#include "ShmBaseFixture.h"
#include "TempRoot.h"
#include "keelbase/CAWSocketUdp.h"
#include "keelbase/internal/EndpointFile.h"
#include "keelbase/internal/EventLoop.h"

namespace keelbase {
namespace {

using zarn::test::FailingCalls;

// --- the loop ---

TEST(EventLoopFailingCalls, ASystemThatWaitsInMillisecondsOnlyRunsNoTimerTooEarly) {
  zarn::test::WithLoop([](internal::EventLoop& loop) {
    const FailingCalls old("epoll_pwait2", ENOSYS);
    constexpr std::chrono::microseconds kWait(5500);
    internal::Timer timer(loop);
    const auto begin = std::chrono::steady_clock::now();
    timer.Start(kWait, 1, [&loop] { loop.Stop(); });
    loop.Run();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, kWait);
    EXPECT_GE(old.GetFailed(), 1);
    EXPECT_LE(old.GetFailed(), 10);  // it slept meanwhile
  });
}

// --- a listener's file ---

TEST(EndpointFileFailingCalls, AFileThatCannotBeListenedAtIsNotLeftBehind) {
  const zarn::test::TempDir dir;
  const internal::EndpointPath path(dir.GetPath() + "/1_2");
  internal::EndpointFile file;
  internal::FileDescriptor listening;
  {
    const FailingCalls failing("listen", EADDRINUSE);
    EXPECT_EQ(file.Listen(path, listening), EADDRINUSE);
  }
  EXPECT_FALSE(std::filesystem::exists(dir.GetPath() + "/1_2"));
  EXPECT_FALSE(static_cast<bool>(listening));
  EXPECT_EQ(file.Listen(path, listening), 0);
}

TEST(EndpointFileFailingCalls, AFileThatCannotBeLookedAtOnceItIsMadeIsNotEither) {
  const zarn::test::TempDir dir;
  const internal::EndpointPath path(dir.GetPath() + "/1_2");
  internal::EndpointFile file;
  internal::FileDescriptor listening;
  const FailingCalls failing("fstatat", EACCES, FailingCalls::kAll, 1);
  EXPECT_EQ(file.Listen(path, listening), EACCES);
  EXPECT_EQ(failing.GetFailed(), 1);
  EXPECT_FALSE(std::filesystem::exists(dir.GetPath() + "/1_2"));
}

// --- a segment ---

using ShmFailingCalls = ShmBaseFixture;

TEST_F(ShmFailingCalls, AFileSystemWithoutLocksIsRefused) {
  const FailingCalls failing("flock", ENOLCK);
  ExpectRefused(100, "cannot be locked");
}

TEST_F(ShmFailingCalls, AFileThatKeepsItsLengthIsRefusedAndRemoved) {
  const FailingCalls failing("ftruncate", EIO);
  ExpectRefused(100, "cannot be changed");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ShmFailingCalls, AFileThatIsDeletedEachTimeIsGivenUp) {
  const FailingCalls failing("lstat", ENOENT);
  CAWShmBase shm;
  EXPECT_EQ(shm.Create(path_, 100, 0), AW_ERROR_NOT_AVAILABLE);
  EXPECT_GE(failing.GetFailed(), 100);
}

TEST_F(ShmFailingCalls, AProcessWithoutAddressesGetsNoneAndMayTryAgain) {
  {
    const FailingCalls failing("mmap", ENOMEM);
    ExpectRefused(100, "cannot be mapped");
  }
  CAWShmBase shm;
  EXPECT_EQ(shm.Create(path_, 100, 0), AW_OK);
}

// --- a UDP socket ---

TEST(CAWSocketUdpFailingCalls, TheSystemsReasonIsTold) {
  CAWSocketUdp udp;
  ASSERT_EQ(udp.Open(CAWInetAddr("127.0.0.1", 0)), AW_OK);
  const FailingCalls failing("getsockname", ENOBUFS);
  CAWInetAddr local;
  EXPECT_EQ(udp.GetLocalAddr(local), static_cast<AWResult>(ENOBUFS));
}

}  // namespace
}  // namespace keelbase
