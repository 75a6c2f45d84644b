// FailingCalls_test.cpp - system calls that fail: those of the loop, of a listener's file, of a
// segment and of a UDP socket.
#include "FailingCalls.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "LoopThread.h"
#include "ShmBaseFixture.h"
#include "TempRoot.h"
#include "keelbase/CAWSocketUdp.h"
#include "keelbase/internal/EndpointFile.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FileDescriptor.h"

namespace keelbase {
namespace {

using zarn::test::FailingCalls;

// --- the loop ---

// Filters of system calls answer EPERM for those they do not know.
TEST(EventLoopFailingCalls, ASystemThatWaitsInMillisecondsOnlyRunsNoTimerTooEarly) {
  for (const int error : {ENOSYS, EPERM}) {
    zarn::test::WithLoop([error](internal::EventLoop& loop) {
      const FailingCalls old("epoll_pwait2", error);
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
}

TEST(EventLoopFailingCalls, ADescriptorIsServedAlsoWhereTheFineWaitIsForbidden) {
  zarn::test::WithLoop([](internal::EventLoop& loop) {
    const FailingCalls forbidden("epoll_pwait2", EPERM);
    struct Stopper final : internal::Watcher {
      explicit Stopper(internal::EventLoop& served) : loop(served) {}
      void OnReady(std::uint32_t) override {
        isReady = true;
        loop.Stop();
      }
      internal::EventLoop& loop;
      bool isReady = false;
    } stopper(loop);
    const internal::FileDescriptor event(::eventfd(1, EFD_CLOEXEC));
    ASSERT_EQ(loop.Watch(event.Get(), EPOLLIN, stopper), 0);
    internal::Timer late(loop);  // so that the loop waits for a time at all
    late.Start(std::chrono::seconds(1), 1, [&loop] { loop.Stop(); });
    loop.Run();
    EXPECT_TRUE(stopper.isReady);
    EXPECT_LE(forbidden.GetFailed(), 10);
    loop.Unwatch(event.Get(), stopper);
  });
}

// --- a listener's file ---

// What a listener that was killed leaves behind.
void MakeStale(const std::string& path) {
  const internal::FileDescriptor killed(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(killed.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

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

TEST(EndpointFileFailingCalls, AShortageThatHidesWhetherAFileIsServedIsToldAsSuch) {
  const zarn::test::TempDir dir;
  const internal::EndpointPath path(dir.GetPath() + "/1_2");
  MakeStale(dir.GetPath() + "/1_2");
  internal::EndpointFile file;
  internal::FileDescriptor listening;
  {
    const FailingCalls failing("socket", EMFILE, FailingCalls::kAll, 1);
    EXPECT_EQ(file.Listen(path, listening), EMFILE);
    EXPECT_EQ(failing.GetFailed(), 1);
  }
  EXPECT_TRUE(std::filesystem::is_socket(dir.GetPath() + "/1_2"));
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
