// StreamListenerFailingCalls_test.cpp - a listener that may accept nobody for a moment, without any
// memory.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>

#include "Exhaustion.h"
#include "FailingCalls.h"
#include "LoopThread.h"
#include "TraceLines.h"
#include "keelbase/internal/ManualClock.h"
#include "keelbase/internal/StreamListener.h"

namespace keelbase::internal {
namespace {

using zarn::test::FailingCalls;

TEST(StreamListenerFailingCalls, WaitsForABetterMomentAlsoWithoutMemory) {
  zarn::test::WithLoop([](EventLoop& loop) {
    const zarn::test::TraceLines trace;
    ManualClock clock;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socklen_t size = sizeof(sa_family_t);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listening.Get(), name, size), 0);  // the system chooses a name
    EXPECT_EQ(::listen(listening.Get(), 100), 0);
    size = sizeof address;
    EXPECT_EQ(::getsockname(listening.Get(), name, &size), 0);
    int accepted = 0;
    StreamListener listener(loop, [&](const FileDescriptor&) { ++accepted; });
    ASSERT_EQ(listener.Start(std::move(listening)), 0);
    const FileDescriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(client.Get(), name, size), 0);
    {
      const FailingCalls failing("accept4", EMFILE);
      const zarn::test::Exhaustion none;
      for (int turns = 0; turns < 100; ++turns) loop.RunReady();
      EXPECT_EQ(failing.GetFailed(), 1);
    }
    EXPECT_EQ(accepted, 0);
    clock.Advance(std::chrono::seconds(1));
    loop.RunReady();
    EXPECT_EQ(accepted, 1);
  });
}

}  // namespace
}  // namespace keelbase::internal
