// StreamListenerFailingCalls_test.cpp - a listener that may accept nobody for a moment and finds no
// memory to wait for a better one.
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

TEST(StreamListenerFailingCalls, WhoFindsNoMemoryForAPauseTriesAgainAtOnce) {
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
    int atOnce = 0;
    for (zarn::test::EachAllocation each; each.Next();) {
      accepted = 0;
      const FileDescriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      EXPECT_EQ(::connect(client.Get(), name, size), 0);
      {
        const zarn::test::EmptyPool pool;
        const FailingCalls failing("accept4", EMFILE, 1);
        each.Try([&] { loop.RunReady(); });
      }
      atOnce += accepted;
      clock.Advance(std::chrono::seconds(1));
      loop.RunReady();
      EXPECT_EQ(accepted, 1) << each.GetNumber();
    }
    EXPECT_EQ(atOnce, 1);
  });
}

}  // namespace
}  // namespace keelbase::internal
