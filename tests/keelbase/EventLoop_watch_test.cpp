// EventLoop_watch_test.cpp - descriptors that a loop watches.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ChildTest.h"
#include "LoopThread.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FunctionEvent.h"

namespace keelbase::internal {
namespace {

using zarn::test::ChildTest;
using zarn::test::WithLoop;

struct SocketPair {
  SocketPair() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return;
    near.Reset(ends[0]);
    far.Reset(ends[1]);
  }
  FileDescriptor near;
  FileDescriptor far;
};

class RecordingWatcher final : public Watcher {
 public:
  void OnReady(std::uint32_t events) override {
    ++calls;
    last = events;
    if (then) then();
  }
  int calls = 0;
  std::uint32_t last = 0;
  std::function<void()> then;
};

TEST(EventLoop, WatcherHearsOfInputUntilUnwatched) {
  WithLoop([](EventLoop& loop) {
    SocketPair sockets;
    RecordingWatcher watcher;
    ASSERT_EQ(loop.Watch(sockets.near.Get(), EPOLLIN, watcher), 0);
    EXPECT_FALSE(loop.RunReady());
    ASSERT_EQ(::write(sockets.far.Get(), "x", 1), 1);
    watcher.then = [&] { loop.Unwatch(sockets.near.Get(), watcher); };
    EXPECT_TRUE(loop.RunReady());
    EXPECT_EQ(watcher.calls, 1);
    EXPECT_EQ(watcher.last, static_cast<std::uint32_t>(EPOLLIN));
    EXPECT_FALSE(loop.RunReady());
  });
}

// As a connection whose peer floods it.
class FloodedWatcher final : public Watcher {
 public:
  void OnReady(std::uint32_t) override {}
  bool OnSpin() override {
    if (fails) throw std::runtime_error("while it spins");
    return true;
  }
  bool fails = false;
};

// Runs a spinning loop that has last heard of `watcher`, until it is stopped.
void SpinWith(EventLoop& loop, FloodedWatcher& watcher) {
  SocketPair sockets;
  ASSERT_EQ(loop.Watch(sockets.near.Get(), EPOLLIN | EPOLLET, watcher), 0);
  ASSERT_EQ(::write(sockets.far.Get(), "x", 1), 1);
  loop.RunReady();
  loop.SetSpin(1000);
  loop.Run();
  loop.Unwatch(sockets.near.Get(), watcher);
}

TEST(EventLoop, SpinningForOneWatcherKeepsNobodyElseWaiting) {
  WithLoop([](EventLoop& loop) {
    FloodedWatcher watcher;
    bool fired = false;
    Timer timer(loop);
    timer.Start(std::chrono::milliseconds(1), 1, [&] { fired = true; });
    std::promise<void> served;
    std::thread stranger([&] {
      loop.Post(new FunctionEvent([&] { served.set_value(); }));
      const auto status = served.get_future().wait_for(std::chrono::seconds(10));
      EXPECT_EQ(status, std::future_status::ready);
      while (timer.IsActive() && status == std::future_status::ready) std::this_thread::yield();
      loop.Stop();
    });
    SpinWith(loop, watcher);
    stranger.join();
    EXPECT_TRUE(fired);
  });
}

// As a connection that has no input any more, whose owner sends its last words elsewhere.
class EndingWatcher final : public Watcher, public TurnEndTask {
 public:
  explicit EndingWatcher(EventLoop& loop) : loop_(loop) {}
  void OnReady(std::uint32_t) override {}
  bool OnSpin() override {
    if (!std::exchange(ended_, true)) loop_.AtTurnEnd(*this);
    return false;
  }
  void OnTurnEnd() override {
    sent = true;
    loop_.Stop();
  }
  bool sent = false;

 private:
  EventLoop& loop_;
  bool ended_ = false;
};

TEST(EventLoop, WhatIsGatheredAtAnEndThatIsSeenWhileSpinningIsWrittenBeforeTheLoopSleeps) {
  WithLoop([](EventLoop& loop) {
    EndingWatcher watcher(loop);
    SocketPair sockets;
    ASSERT_EQ(loop.Watch(sockets.near.Get(), EPOLLIN | EPOLLET, watcher), 0);
    ASSERT_EQ(::write(sockets.far.Get(), "x", 1), 1);
    loop.RunReady();
    bool slept = false;
    Timer limit(loop);
    limit.Start(std::chrono::seconds(10), 1, [&] {
      slept = !watcher.sent;
      loop.Stop();
    });
    loop.SetSpin(1);
    loop.Run();
    EXPECT_TRUE(watcher.sent);
    EXPECT_FALSE(slept);
    loop.Unwatch(sockets.near.Get(), watcher);
  });
}

TEST(EventLoop, ExceptionWhileItSpinsEndsTheProcessWithAMessageToo) {
  if (ChildTest::Role() == "throws") {
    EventLoop loop("unlucky");
    loop.BindToCurrentThread();
    FloodedWatcher watcher;
    watcher.fails = true;
    SpinWith(loop, watcher);
    std::exit(0);
  }
  ChildTest child("throws");
  EXPECT_NE(child.Wait(), 0);
  EXPECT_NE(child.GetErrors().find("unlucky thread: while it spins"), std::string::npos)
      << child.GetErrors();
}

TEST(EventLoop, WatcherThatIsUnwatchedWithinTheTurnHearsNothing) {
  WithLoop([](EventLoop& loop) {
    SocketPair one;
    SocketPair two;
    RecordingWatcher first;
    RecordingWatcher second;
    const auto unwatchBoth = [&] {
      loop.Unwatch(one.near.Get(), first);
      loop.Unwatch(two.near.Get(), second);
    };
    first.then = unwatchBoth;
    second.then = unwatchBoth;
    ASSERT_EQ(loop.Watch(one.near.Get(), EPOLLIN, first), 0);
    ASSERT_EQ(loop.Watch(two.near.Get(), EPOLLIN, second), 0);
    ASSERT_EQ(::write(one.far.Get(), "x", 1), 1);
    ASSERT_EQ(::write(two.far.Get(), "x", 1), 1);
    loop.RunReady();
    EXPECT_EQ(first.calls + second.calls, 1);
  });
}

TEST(EventLoop, WhatAStopLeavesOfABatchIsServedWhenTheLoopRunsAgain) {
  WithLoop([](EventLoop& loop) {
    SocketPair one;
    SocketPair two;
    RecordingWatcher first;
    RecordingWatcher second;
    first.then = second.then = [&] { loop.Stop(); };
    ASSERT_EQ(loop.Watch(one.near.Get(), EPOLLIN | EPOLLET, first), 0);
    ASSERT_EQ(loop.Watch(two.near.Get(), EPOLLIN | EPOLLET, second), 0);
    ASSERT_EQ(::write(one.far.Get(), "x", 1), 1);
    ASSERT_EQ(::write(two.far.Get(), "x", 1), 1);
    loop.Run();
    EXPECT_EQ(first.calls + second.calls, 1);
    Timer limit(loop);
    limit.Start(std::chrono::seconds(10), 1, [&] { loop.Stop(); });
    loop.Run();
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.calls, 1);
  });
}

TEST(EventLoop, WatcherThatIsUnwatchedBehindAStopHearsNothing) {
  WithLoop([](EventLoop& loop) {
    SocketPair one;
    SocketPair two;
    RecordingWatcher first;
    RecordingWatcher second;
    first.then = second.then = [&] { loop.Stop(); };
    ASSERT_EQ(loop.Watch(one.near.Get(), EPOLLIN, first), 0);
    ASSERT_EQ(loop.Watch(two.near.Get(), EPOLLIN, second), 0);
    ASSERT_EQ(::write(one.far.Get(), "x", 1), 1);
    ASSERT_EQ(::write(two.far.Get(), "x", 1), 1);
    loop.Run();
    loop.Unwatch(one.near.Get(), first);
    loop.Unwatch(two.near.Get(), second);
    loop.RunReady();
    EXPECT_EQ(first.calls + second.calls, 1);
  });
}

TEST(EventLoop, WatchingABadDescriptorIsAnError) {
  WithLoop([](EventLoop& loop) {
    RecordingWatcher watcher;
    EXPECT_EQ(loop.Watch(-1, EPOLLIN, watcher), EBADF);
  });
}

}  // namespace
}  // namespace keelbase::internal
