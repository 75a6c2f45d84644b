// StreamSocket_test.cpp - the stream-socket engine on a socket pair: what transports do not show.
#include "keelbase/internal/StreamSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <string>
#include <thread>

#include "LoopThread.h"
#include "keelbase/internal/FunctionEvent.h"
#include "keelbase/internal/ManualClock.h"

namespace keelbase::internal {
namespace {

using zarn::test::TurnUntil;
using zarn::test::WithLoop;

class Sink final : public StreamSocketSink {
 public:
  void OnBytes(CAWMessageBlock& block) override {
    received += block.FlattenChained();
    longest = std::max(longest, block.GetChainedLength());
    if (failMemory) throw std::bad_alloc();
  }
  void OnRoom() override { ++rooms; }
  void OnEnd(long why) override {
    ++ends;
    reason = why;
  }
  std::string received;
  std::size_t longest = 0;
  int rooms = 0;
  int ends = 0;
  long reason = -1;
  bool failMemory = false;
};

struct Pair {
  explicit Pair(EventLoop& loop) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    socket = new StreamSocket(loop, FileDescriptor(ends[0]));
    peer.Reset(ends[1]);
  }
  ~Pair() {
    if (socket) socket->Disconnect();
  }
  AWResult Send(const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    return socket->Send(block);
  }
  std::string Read() {
    std::string text(1 << 20, '\0');
    const ssize_t count = ::recv(peer.Get(), text.data(), text.size(), MSG_DONTWAIT);
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
  }
  CAWAutoPtr<StreamSocket> socket;
  FileDescriptor peer;
};

TEST(StreamSocket, BytesGoBothWays) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    EXPECT_EQ(pair.socket->Open(&sink), AW_OK);
    EXPECT_EQ(pair.socket->Open(&sink), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.Send("there"), AW_OK);
    EXPECT_EQ(::write(pair.peer.Get(), "back", 4), 4);
    loop.RunReady();
    EXPECT_EQ(pair.Read(), "there");
    EXPECT_EQ(sink.received, "back");
  });
}

TEST(StreamSocket, LettingGoOfAnOpenOneWritesWhatWasTakenAndEndsIt) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    EXPECT_EQ(pair.Send("taken"), AW_OK);
    pair.socket = nullptr;
    EXPECT_EQ(pair.Read(), "taken");
    char byte;
    EXPECT_EQ(::recv(pair.peer.Get(), &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(sink.ends, 0);
  });
}

TEST(StreamSocket, WriteOfADeadConnectionRaisesNoSignal) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    pair.peer.Reset();
    const AWResult result = pair.Send(std::string(100000, 'x'));
    EXPECT_EQ(result, static_cast<AWResult>(EPIPE));
    EXPECT_TRUE(TurnUntil(loop, [&] { return sink.ends == 1; }));
    EXPECT_EQ(sink.reason, EPIPE);
  });
}

TEST(StreamSocket, LackOfMemoryInACallbackEndsThatConnection) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    sink.failMemory = true;
    pair.socket->Open(&sink);
    EXPECT_EQ(::write(pair.peer.Get(), "x", 1), 1);
    EXPECT_TRUE(TurnUntil(loop, [&] { return sink.ends == 1; }));
    EXPECT_EQ(sink.reason, ENOMEM);
  });
}

TEST(StreamSocket, SpinningLoopFindsInputByItself) {
  WithLoop([](EventLoop& loop) {
    loop.SetSpin(1000);
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    std::thread peer([&] {
      for (int sent = 0; sent < 500;) {
        if (::send(pair.peer.Get(), "x", 1, 0) == 1)
          ++sent;
        else
          std::this_thread::yield();  // the loop has to read first
      }
      ::shutdown(pair.peer.Get(), SHUT_WR);
    });
    Timer watch(loop);
    watch.Start(std::chrono::milliseconds(1), 0, [&] {
      if (sink.ends != 0) loop.Stop();
    });
    loop.Run();
    peer.join();
    EXPECT_EQ(sink.received, std::string(500, 'x'));
    EXPECT_EQ(sink.reason, 0);
  });
}

TEST(StreamSocket, SendsOfAStoppedLoopAreWrittenWhenItIsClosed) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    EXPECT_EQ(pair.Send("taken"), AW_OK);
    pair.socket->Disconnect();
    EXPECT_EQ(pair.Read(), "taken");
    EXPECT_EQ(pair.Send("x"), AW_ERROR_NOT_INITIALIZED);
  });
}

TEST(StreamSocket, LingersAreFinishedWithoutServingAnythingElse) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const std::string text(3000000, 'x');
    CAWMessageBlock chain(text.data(), text.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.socket->AddLingerData(chain), AW_OK);
    pair.socket->Disconnect();
    EXPECT_EQ(pair.socket->AddLingerData(chain), AW_ERROR_NOT_INITIALIZED);
    std::size_t got = 0;
    std::thread reader([&] {
      std::string buffer(100000, '\0');
      const int flags = ::fcntl(pair.peer.Get(), F_GETFL);
      ::fcntl(pair.peer.Get(), F_SETFL, flags & ~O_NONBLOCK);
      for (ssize_t count; (count = ::read(pair.peer.Get(), buffer.data(), buffer.size())) > 0;)
        got += static_cast<std::size_t>(count);
    });
    bool served = false;
    loop.Post(new FunctionEvent([&] { served = true; }));
    loop.FinishLingers();
    reader.join();
    EXPECT_EQ(got, text.size());
    EXPECT_FALSE(served);
  });
}

TEST(StreamSocket, LingersThatNobodyReadsEndInTime) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const std::uint32_t lingerMs = 50;
    pair.socket->SetOption(AW_OPT_LINGER, &lingerMs);
    const std::string text(3000000, 'x');
    CAWMessageBlock chain(text.data(), text.size(), CAWMessageBlock::borrow);
    pair.socket->AddLingerData(chain);
    const auto start = std::chrono::steady_clock::now();
    pair.socket->Disconnect();
    loop.FinishLingers();
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(49));
    EXPECT_LT(took, std::chrono::seconds(5));
  });
}

TEST(StreamSocket, OneWhosePeerHasOnlyEndedItsSideWritesWhatWasTakenAndRests) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const std::string text(1 << 20, 'x');
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.socket->Send(block), AW_ERROR_PARTIAL_DATA);
    const std::string taken = text.substr(block.GetLength()) + "tail";
    EXPECT_EQ(pair.Send("tail"), AW_OK);
    ::shutdown(pair.peer.Get(), SHUT_WR);
    EXPECT_TRUE(TurnUntil(loop, [&] { return sink.ends == 1; }));
    std::string got;
    EXPECT_TRUE(TurnUntil(loop, [&] {
      got += pair.Read();
      return got.size() >= taken.size();
    }));
    EXPECT_TRUE(got == taken);
    loop.RunReady();  // returns: nothing is ready for ever
    pair.peer.Reset();
    loop.RunReady();
    EXPECT_EQ(sink.rooms, 0);
  });
}

TEST(StreamSocket, CloseWithUnreadInputIsAnOrderlyEndAndLosesNothing) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    EXPECT_EQ(::write(pair.peer.Get(), "unread", 6), 6);
    EXPECT_EQ(pair.Send("answer"), AW_OK);
    pair.socket->Disconnect();
    EXPECT_EQ(::write(pair.peer.Get(), "more", 4), 4);
    loop.RunReady();
    EXPECT_EQ(pair.Read(), "answer");
    char byte;
    EXPECT_EQ(::recv(pair.peer.Get(), &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_TRUE(sink.received.empty());
    pair.peer.Reset();
    loop.FinishLingers();  // it ends with its peer
  });
}

TEST(StreamSocket, CloseAfterASendTakenInPartRestsWhileItAwaitsThePeersEnd) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const std::uint32_t lingerMs = 10000;
    pair.socket->SetOption(AW_OPT_LINGER, &lingerMs);
    EXPECT_EQ(::write(pair.peer.Get(), "unread", 6), 6);
    EXPECT_EQ(pair.Send(std::string(4 << 20, 'x')), AW_ERROR_PARTIAL_DATA);
    pair.socket->Disconnect();
    while (!pair.Read().empty()) {
    }
    loop.RunReady();  // returns at once: that it could write again is of no use to it
    EXPECT_EQ(::send(pair.peer.Get(), "more", 4, MSG_NOSIGNAL), 4);
    pair.peer.Reset();
    loop.FinishLingers();  // it ends with its peer
  });
}

TEST(StreamSocket, WhoIsToAwaitThePeersEndDoesSoAlsoWithoutUnreadInput) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const bool on = true;
    EXPECT_EQ(pair.socket->SetOption(AW_OPT_AWAIT_END, &on), AW_OK);
    EXPECT_EQ(pair.Send("last"), AW_OK);
    pair.socket->Disconnect();
    EXPECT_EQ(pair.Read(), "last");
    char byte;
    EXPECT_EQ(::recv(pair.peer.Get(), &byte, 1, MSG_DONTWAIT), 0);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(::send(pair.peer.Get(), "late", 4, MSG_NOSIGNAL), 4);
      loop.RunReady();
    }
    pair.peer.Reset();
    loop.FinishLingers();  // it ends with its peer
  });
}

TEST(StreamSocket, WhoHasSentNothingClosesAtOnceAlsoWithUnreadInput) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    EXPECT_EQ(::write(pair.peer.Get(), "unread", 6), 6);
    pair.socket->Disconnect();
    EXPECT_LT(::send(pair.peer.Get(), "more", 4, MSG_NOSIGNAL), 0);
    EXPECT_EQ(errno, EPIPE);
  });
}

TEST(StreamSocket, PeerThatFloodsAfterTheEndIsCutOff) {
  WithLoop([](EventLoop& loop) {
    const ManualClock stands;
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    EXPECT_EQ(pair.Send("answer"), AW_OK);
    EXPECT_EQ(::write(pair.peer.Get(), "unread", 6), 6);
    pair.socket->Disconnect();
    const std::string flood(60000, 'x');
    std::size_t sent = 0;
    EXPECT_TRUE(TurnUntil(loop, [&] {
      const ssize_t count = ::send(pair.peer.Get(), flood.data(), flood.size(), MSG_NOSIGNAL);
      sent += count > 0 ? static_cast<std::size_t>(count) : 0;
      return count < 0 && errno == EPIPE;
    }));
    EXPECT_GE(sent, 16U << 20);
    EXPECT_LE(sent, 20U << 20);
  });
}

TEST(StreamSocket, PeerThatSendsForEverIsListenedToForTheLingerTimeOnly) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const std::uint32_t lingerMs = 50;
    pair.socket->SetOption(AW_OPT_LINGER, &lingerMs);
    EXPECT_EQ(pair.Send("answer"), AW_OK);
    EXPECT_EQ(::write(pair.peer.Get(), "unread", 6), 6);
    pair.socket->Disconnect();
    EXPECT_TRUE(TurnUntil(loop, [&] {
      return ::send(pair.peer.Get(), "more", 4, MSG_NOSIGNAL) < 0 && errno == EPIPE;
    }));
  });
}

TEST(StreamSocket, StoppedReaderIsGivenAllThatCameBeforeTheEndHoweverMuchTheSystemHolds) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    const int most = 64 << 20;
    if (::setsockopt(pair.peer.Get(), SOL_SOCKET, SO_SNDBUFFORCE, &most, sizeof most) != 0)
      GTEST_SKIP() << "only root may let it hold so much";
    Sink sink;
    pair.socket->Open(&sink);
    pair.socket->StopReading(true);
    const std::string all(20 << 20, 'x');
    std::size_t sent = 0;
    while (sent < all.size()) {
      const ssize_t count = ::write(pair.peer.Get(), all.data() + sent, all.size() - sent);
      ASSERT_GT(count, 0);
      sent += static_cast<std::size_t>(count);
    }
    pair.peer.Reset();
    EXPECT_TRUE(TurnUntil(loop, [&] { return sink.ends == 1; }));
    EXPECT_EQ(sink.received.size(), all.size());
    EXPECT_EQ(sink.reason, 0);
  });
}

TEST(StreamSocket, OneReceiveEventBringsNoMoreThanTheReadSize) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const std::uint32_t size = 100;
    EXPECT_EQ(pair.socket->SetOption(AW_OPT_READ_SIZE, &size), AW_OK);
    const std::string text(1000, 'x');
    EXPECT_EQ(::write(pair.peer.Get(), text.data(), text.size()), 1000);
    EXPECT_TRUE(TurnUntil(loop, [&] { return sink.received.size() == text.size(); }));
    EXPECT_EQ(sink.longest, 100U);
  });
}

TEST(StreamSocket, ReadSizeIsBroughtIntoItsRange) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    Sink sink;
    pair.socket->Open(&sink);
    const std::uint32_t none = 0, huge = 0xffffffff;
    EXPECT_EQ(pair.socket->SetOption(AW_OPT_READ_SIZE, &none), AW_OK);
    EXPECT_EQ(::write(pair.peer.Get(), "xy", 2), 2);
    EXPECT_TRUE(TurnUntil(loop, [&] { return sink.received.size() == 2; }));
    EXPECT_EQ(sink.longest, 1U);
    EXPECT_EQ(pair.socket->SetOption(AW_OPT_READ_SIZE, &huge), AW_OK);
    const std::string text(100000, 'x');
    EXPECT_EQ(::write(pair.peer.Get(), text.data(), text.size()), 100000);
    EXPECT_TRUE(TurnUntil(loop, [&] { return sink.received.size() == 100002; }));
    EXPECT_EQ(sink.longest, 65535U);
  });
}

TEST(StreamSocket, UnknownOptionsAreRefused) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    int value = 0;
    EXPECT_EQ(pair.socket->GetOption(104, &value), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.socket->SetOption(AW_OPT_COUNTERS, &value), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.socket->GetOption(AW_OPT_COUNTERS, nullptr), AW_ERROR_FAILURE);
  });
}

}  // namespace
}  // namespace keelbase::internal
