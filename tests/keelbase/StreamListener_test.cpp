// StreamListener_test.cpp - accepting on a listening socket, also when there are no descriptors.
#include "keelbase/internal/StreamListener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "DescriptorShortage.h"
#include "LoopThread.h"
#include "TraceLines.h"
#include "keelbase/internal/ManualClock.h"

namespace keelbase::internal {
namespace {

using zarn::test::WithLoop;

// Clients that stand in the queue of a listening socket, which has a name that the system chose.
class Crowd {
 public:
  FileDescriptor Listen() {
    FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un none{};
    none.sun_family = AF_UNIX;
    EXPECT_EQ(::bind(listening.Get(), reinterpret_cast<sockaddr*>(&none), sizeof(sa_family_t)), 0);
    EXPECT_EQ(::listen(listening.Get(), 500), 0);
    EXPECT_EQ(::getsockname(listening.Get(), reinterpret_cast<sockaddr*>(&address_), &size_), 0);
    return listening;
  }
  void Connect(int count) {
    for (int i = 0; i < count; ++i) {
      clients_.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      EXPECT_EQ(::connect(clients_.back().Get(), reinterpret_cast<sockaddr*>(&address_), size_), 0);
    }
  }

 private:
  sockaddr_un address_{};
  socklen_t size_ = sizeof address_;
  std::vector<FileDescriptor> clients_;
};

TEST(StreamListener, AcceptsAllWhoCame) {
  WithLoop([](EventLoop& loop) {
    Crowd crowd;
    std::vector<FileDescriptor> accepted;
    StreamListener listener(loop,
                            [&](FileDescriptor socket) { accepted.push_back(std::move(socket)); });
    ASSERT_EQ(listener.Start(crowd.Listen()), 0);
    crowd.Connect(200);
    loop.RunReady();
    ASSERT_EQ(accepted.size(), 200U);
    for (const FileDescriptor& socket : accepted) {
      EXPECT_NE(::fcntl(socket.Get(), F_GETFL) & O_NONBLOCK, 0);
      EXPECT_NE(::fcntl(socket.Get(), F_GETFD) & FD_CLOEXEC, 0);
    }
  });
}

TEST(StreamListener, FunctionMayDestroyIt) {
  WithLoop([](EventLoop& loop) {
    Crowd crowd;
    int accepted = 0;
    std::unique_ptr<StreamListener> listener;
    listener = std::make_unique<StreamListener>(loop, [&](FileDescriptor) {
      ++accepted;
      listener.reset();
    });
    ASSERT_EQ(listener->Start(crowd.Listen()), 0);
    crowd.Connect(3);
    loop.RunReady();
    EXPECT_EQ(accepted, 1);
  });
}

TEST(StreamListener, PausesWithoutDescriptorsAndGoesOn) {
  WithLoop([](EventLoop& loop) {
    const zarn::test::TraceLines trace;
    ManualClock clock;
    Crowd crowd;
    int accepted = 0;
    StreamListener listener(loop, [&](FileDescriptor) { ++accepted; });
    ASSERT_EQ(listener.Start(crowd.Listen()), 0);
    crowd.Connect(2);
    {
      const zarn::test::DescriptorShortage shortage;
      loop.RunReady();
      EXPECT_FALSE(loop.RunReady());  // it is not told again and again
      clock.Advance(std::chrono::milliseconds(100));
      loop.RunReady();
      EXPECT_FALSE(loop.RunReady());
    }
    EXPECT_FALSE(loop.RunReady());
    EXPECT_EQ(accepted, 0);
    clock.Advance(std::chrono::milliseconds(100));
    loop.RunReady();
    EXPECT_EQ(accepted, 2);
    EXPECT_EQ(trace.Get().size(), 1U);  // it says so once
  });
}

TEST(StreamListener, BadDescriptorIsAnError) {
  WithLoop([](EventLoop& loop) {
    StreamListener listener(loop, [](FileDescriptor) {});
    EXPECT_EQ(listener.Start(FileDescriptor()), EBADF);
  });
}

}  // namespace
}  // namespace keelbase::internal
