// UdpPortFailingCalls_test.cpp - the port of many connections when the system takes nothing more,
// cannot cut a batch up or gives nothing, and when there is no memory. A plain socket is the peer.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "ClockAndRandom.h"
#include "Exhaustion.h"
#include "FailingCalls.h"
#include "LonePackets.h"
#include "LoopThread.h"
#include "TraceLines.h"
#include "UdpPort.h"
#include "keelbase/CAWSocketUdp.h"
#include "keelbase/internal/ManualClock.h"

namespace ptcp::test {
namespace {

using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::internal::EventLoop;
using zarn::test::FailingCalls;

Bytes AsBytes(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

class User final : public PortUser {
 public:
  const Path& GetPath() const override {
    ++looks;
    return path;
  }
  void OnDatagram(Bytes datagram, Time) override {
    got.emplace_back(datagram.begin(), datagram.end());
  }
  void OnReset(Bytes datagram, Time) override {
    resets.emplace_back(datagram.begin(), datagram.end());
  }
  void OnBatchEnd() override { ++batches; }
  bool MayHaveSent(Bytes) const override { return true; }
  void OnPortError(int error) override { lastError = error; }
  void OnPortFree() override { ++frees; }
  Time LingerDue() const override { return due; }
  void OnLinger() override {
    ++lingers;
    port->EndLinger(*this);
  }

  UdpPort* port = nullptr;
  Time due = kNever;

  Path path;
  std::vector<std::string> got;
  std::vector<std::string> resets;
  int lastError = 0;
  int batches = 0;
  int frees = 0;
  int lingers = 0;
  mutable int looks = 0;
};

// A port, a peer of it, and a user that has a connection between them.
struct Exchange {
  explicit Exchange(EventLoop& on) : loop(on), port(new UdpPort(on)) {
    EXPECT_EQ(peer.Open(local), keelbase::AW_OK);
    EXPECT_EQ(peer.GetLocalAddr(user.path.peer), keelbase::AW_OK);
    EXPECT_EQ(port->Open(&local, nullptr), 0);
    const std::string name = Packet("");
    const auto id = DestinationOf(AsBytes(name));
    EXPECT_TRUE(id && port->AddId(*id, user));
    user.port = port.Get();
  }
  ~Exchange() { port->Remove(user); }

  static std::string Packet(const std::string& text) {
    return std::string(1, '\x43') + std::string(24, 'i') + text;
  }
  void Send(const std::string& text) { port->Send(user.path, AsBytes(text)); }
  void Come(const std::string& text) { ComeAsItIs(Packet(text)); }
  void ComeAsItIs(const std::string& packet) {
    const CAWInetAddr& to = port->GetLocalAddr();
    EXPECT_EQ(
        ::sendto(peer.GetHandle(), packet.data(), packet.size(), 0, to.GetPtr(), to.GetSize()),
        static_cast<ssize_t>(packet.size()));
  }
  // What has arrived at the peer.
  std::vector<std::string> Arrived() const {
    std::vector<std::string> all;
    std::array<char, 2000> room;
    for (;;) {
      const ssize_t count = ::recv(peer.GetHandle(), room.data(), room.size(), MSG_DONTWAIT);
      if (count < 0) return all;
      all.emplace_back(room.data(), static_cast<std::size_t>(count));
    }
  }

  const CAWInetAddr local{"127.0.0.1", 0};
  EventLoop& loop;
  CAWAutoPtr<UdpPort> port;
  keelbase::CAWSocketUdp peer;
  User user;
};

using Texts = std::vector<std::string>;

constexpr int kTries = 3;  // of one write

// --- the system takes nothing more ---

TEST(UdpPortFailingCalls, WhatFindsNoRoomIsSentWhenThereIsAndWhoWaitsIsTold) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    User gone;
    {
      const FailingCalls full("sendmsg", EAGAIN);
      exchange.Send("first");
      exchange.port->FlushBatch();
    }
    EXPECT_TRUE(exchange.port->IsBlocked());
    exchange.port->WaitUntilFree(exchange.user);
    exchange.port->WaitUntilFree(gone);
    exchange.port->Remove(gone);
    exchange.Send("next!");                           // of the same length: there is room for it
    exchange.Send("longer than those in the batch");  // there is not
    EXPECT_EQ(exchange.user.frees, 0);
    EXPECT_TRUE(zarn::test::TurnUntil(loop, [&] { return exchange.user.frees != 0; }));
    EXPECT_FALSE(exchange.port->IsBlocked());
    EXPECT_EQ(exchange.user.frees, 1);
    EXPECT_EQ(gone.frees, 0);
    EXPECT_EQ(exchange.Arrived(), (Texts{"first", "next!"}));
  });
}

TEST(UdpPortFailingCalls, ALingerAtTheProcessesEndGoesOnWhenThereIsRoomAgain) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    exchange.port->BeginLinger(exchange.user);
    exchange.user.due = Now() + 10'000'000'000U;
    {
      const FailingCalls full("sendmsg", EAGAIN);
      exchange.Send("last");
      exchange.port->FlushBatch();
    }
    loop.FinishLingers();
    EXPECT_EQ(exchange.Arrived(), Texts{"last"});
    EXPECT_LT(Now(), exchange.user.due);
  });
}

TEST(UdpPortFailingCalls, AShortMomentOfRoomIsNone) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    const FailingCalls full("sendmsg", EAGAIN, 3);
    exchange.Send("text");
    exchange.port->FlushBatch();
    exchange.port->WaitUntilFree(exchange.user);
    EXPECT_TRUE(zarn::test::TurnUntil(loop, [&] { return exchange.user.frees != 0; }));
    EXPECT_EQ(full.GetFailed(), 3);
    EXPECT_EQ(exchange.user.frees, 1);
    EXPECT_EQ(exchange.Arrived(), Texts{"text"});
  });
}

TEST(UdpPortFailingCalls, WithoutAWordOfRoomTheBatchIsLostAndTheNextOneIsSent) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    const FailingCalls failing("sendmsg", ENOBUFS, 1);
    exchange.Send("lost");
    exchange.port->FlushBatch();
    EXPECT_FALSE(exchange.port->IsBlocked());
    exchange.Send("next");
    exchange.port->FlushBatch();
    EXPECT_EQ(exchange.Arrived(), Texts{"next"});
  });
}

// --- batches ---

TEST(UdpPortFailingCalls, APathThatCutsNoBatchesUpGetsPacketsFromThenOn) {
  zarn::test::WithLoop([](EventLoop& loop) {
    for (const int error : {EIO, EINVAL, EOPNOTSUPP}) {
      Exchange exchange(loop);
      const FailingCalls failing("sendmsg", error, kTries);
      const Texts texts{"one", "two", "3"};
      for (const std::string& text : texts) exchange.Send(text);
      exchange.port->FlushBatch();
      EXPECT_EQ(exchange.Arrived(), texts);
      EXPECT_EQ(exchange.port->Writes(), kTries + 3U);
      for (const std::string& text : texts) exchange.Send(text);
      exchange.port->FlushBatch();
      EXPECT_EQ(exchange.Arrived(), texts);
      EXPECT_EQ(exchange.port->Writes(), kTries + 6U);
    }
  });
}

// What a router says of any datagram of the port comes back from the next write, once.
TEST(UdpPortFailingCalls, AnErrorOfAnotherDatagramLosesNothingAndLeavesBatchesWhole) {
  zarn::test::WithLoop([](EventLoop& loop) {
    for (const int error : {ECONNREFUSED, EHOSTUNREACH, ENETUNREACH, EOPNOTSUPP, EMSGSIZE}) {
      Exchange exchange(loop);
      const FailingCalls failing("sendmsg", error, 1);
      const Texts texts{"one", "two", "3"};
      for (int writes : {2, 3}) {
        for (const std::string& text : texts) exchange.Send(text);
        exchange.port->FlushBatch();
        EXPECT_EQ(exchange.Arrived(), texts);
        EXPECT_EQ(exchange.port->Writes(), static_cast<std::uint64_t>(writes));
      }
    }
  });
}

TEST(UdpPortFailingCalls, ADatagramThatIsRefusedEachTimeIsLost) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    const FailingCalls failing("sendmsg", EPERM, kTries);
    exchange.Send("lost");
    exchange.port->FlushBatch();
    EXPECT_EQ(failing.GetFailed(), kTries);
    exchange.Send("next");
    exchange.port->FlushBatch();
    EXPECT_EQ(exchange.Arrived(), Texts{"next"});
  });
}

TEST(UdpPortFailingCalls, PacketsBehindOneThatFindsNoRoomAreNotTried) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    {
      const FailingCalls failing("sendmsg", EIO, kTries);
      for (const char* text : {"a", "b"}) exchange.Send(text);
      exchange.port->FlushBatch();
    }
    exchange.Arrived();
    const FailingCalls full("sendmsg", ENOBUFS, 1, 1);
    for (const char* text : {"c", "d", "e"}) exchange.Send(text);
    exchange.port->FlushBatch();
    EXPECT_EQ(exchange.Arrived(), Texts{"c"});
  });
}

// --- reading ---

TEST(UdpPortFailingCalls, ReadingThatFailsTimeAndAgainRestsForAWhile) {
  zarn::test::WithLoop([](EventLoop& loop) {
    const zarn::test::TraceLines trace;
    keelbase::internal::ManualClock clock;
    Exchange exchange(loop);
    exchange.Come("late");
    {
      const FailingCalls failing("recvmsg", ENOMEM);
      for (int turns = 0; turns < 100; ++turns) loop.RunReady();
      EXPECT_LE(failing.GetFailed(), 64);
      clock.Advance(std::chrono::milliseconds(100));
      for (int turns = 0; turns < 100; ++turns) loop.RunReady();
      EXPECT_LE(failing.GetFailed(), 65);
    }
    EXPECT_TRUE(exchange.user.got.empty());
    ASSERT_EQ(trace.Get().size(), 1U);
    EXPECT_NE(trace.Get()[0].text.find("no datagram can be received"), std::string::npos);
    clock.Advance(std::chrono::milliseconds(100));
    EXPECT_TRUE(zarn::test::TurnUntil(loop, [&] { return !exchange.user.got.empty(); }));
    EXPECT_EQ(exchange.user.got, Texts{Exchange::Packet("late")});
    EXPECT_EQ(exchange.user.batches, 1);
  });
}

TEST(UdpPortFailingCalls, ReadingRestsAlsoWithoutMemory) {
  zarn::test::WithLoop([](EventLoop& loop) {
    const zarn::test::TraceLines trace;
    keelbase::internal::ManualClock clock;
    Exchange exchange(loop);
    exchange.Come("late");
    {
      const FailingCalls failing("recvmsg", ENOMEM);
      const zarn::test::Exhaustion none;
      for (int turns = 0; turns < 100; ++turns) loop.RunReady();
      EXPECT_LE(failing.GetFailed(), 64);
    }
    clock.Advance(std::chrono::milliseconds(100));
    EXPECT_TRUE(zarn::test::TurnUntil(loop, [&] { return !exchange.user.got.empty(); }));
  });
}

// --- errors of the network ---

// Who forges them must not make the port walk over thousands of connections for each.
TEST(UdpPortFailingCalls, AnErrorOfTheNetworkIsMatchedWithTheConnectionsOfThatPeerOnly) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    std::array<User, 50> others;
    for (std::uint8_t i = 0; i < others.size(); ++i) {
      others[i].path.peer = CAWInetAddr("127.0.0.1", static_cast<std::uint16_t>(i + 1));
      const std::array<std::uint8_t, 8> id{i};
      EXPECT_TRUE(exchange.port->AddId(ConnectionId(id), others[i]));
    }
    const auto looks = [&others] {
      return std::accumulate(others.begin(), others.end(), 0,
                             [](int sum, const User& one) { return sum + one.looks; });
    };
    const int before = looks();
    exchange.peer.Close();
    exchange.Send("nobody is there");
    exchange.port->FlushBatch();
    EXPECT_TRUE(zarn::test::TurnUntil(loop, [&] { return exchange.user.lastError != 0; }));
    EXPECT_EQ(exchange.user.lastError, ECONNREFUSED);
    EXPECT_EQ(looks(), before);
    for (User& one : others) exchange.port->Remove(one);
  });
}

TEST(UdpPortFailingCalls, AnErrorOfTheNetworkIsNotToldToOneThatIsGone) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    exchange.peer.Close();
    exchange.Send("nobody is there");
    exchange.port->FlushBatch();
    exchange.port->RemoveId(*DestinationOf(AsBytes(Exchange::Packet(""))));
    exchange.port->Remove(exchange.user);
    for (int turns = 0; turns < 10; ++turns) loop.RunReady();
    EXPECT_EQ(exchange.user.lastError, 0);
  });
}

// --- resets ---

TEST(UdpPortFailingCalls, AResetComesToTheConnectionsOfItsSenderWhateverItHasForAnId) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    User another;
    another.path.peer = CAWInetAddr("127.0.0.1", 1);
    EXPECT_TRUE(exchange.port->AddId(ConnectionId(std::array<std::uint8_t, 8>{1}), another));
    const std::string reset = std::string(1, '\x43') + std::string(kResetSize - 1, 'r');
    exchange.ComeAsItIs(reset);
    EXPECT_TRUE(zarn::test::TurnUntil(loop, [&] { return exchange.user.batches != 0; }));
    EXPECT_EQ(exchange.user.resets, Texts{reset});
    EXPECT_TRUE(another.resets.empty());
    EXPECT_TRUE(exchange.Arrived().empty());
    exchange.port->Remove(another);
  });
}

TEST(UdpPortFailingCalls, AResetIsOfferedToAFewOfManyConnectionsOfItsSender) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    std::array<User, 100> others;
    for (std::uint8_t i = 0; i < others.size(); ++i) {
      others[i].path.peer = exchange.user.path.peer;
      EXPECT_TRUE(exchange.port->AddId(ConnectionId(std::array<std::uint8_t, 8>{i}), others[i]));
    }
    const auto count = [&others] {
      return std::count_if(others.begin(), others.end(),
                           [](const User& one) { return !one.resets.empty(); });
    };
    exchange.ComeAsItIs(std::string(kResetSize, '\x43'));
    EXPECT_TRUE(zarn::test::TurnUntil(loop, [&] { return count() != 0; }));
    EXPECT_LE(count(), 16);
    for (User& one : others) exchange.port->Remove(one);
  });
}

// --- memory ---

TEST(UdpPortFailingCalls, ADatagramThatFindsNoBufferIsLost) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    {
      const zarn::test::EmptyBuffers buffers(loop);
      const zarn::test::Exhaustion none;
      exchange.Send("lost");
    }
    exchange.Send("next");
    exchange.port->FlushBatch();
    EXPECT_EQ(exchange.Arrived(), Texts{"next"});
  });
}

TEST(UdpPortFailingCalls, AnErrorOfTheNetworkIsToldAlsoWithoutMemory) {
  zarn::test::WithLoop([](EventLoop& loop) {
    const zarn::test::TraceLines trace;
    Exchange exchange(loop);
    exchange.peer.Close();
    exchange.Send("nobody is there");
    exchange.port->FlushBatch();
    {
      const zarn::test::Exhaustion none;
      loop.RunReady();
    }
    EXPECT_EQ(exchange.user.lastError, ECONNREFUSED);
    EXPECT_EQ(exchange.user.batches, 0);  // it looks after itself in time
  });
}

TEST(UdpPortFailingCalls, ALingerNeedsNoMemory) {
  zarn::test::WithLoop([](EventLoop& loop) {
    Exchange exchange(loop);
    exchange.user.due = 0;
    EXPECT_EQ(zarn::test::AllocationsOf([&] { exchange.port->BeginLinger(exchange.user); }), 0U);
    loop.FinishLingers();
    EXPECT_EQ(exchange.user.lingers, 1);
  });
}

}  // namespace
}  // namespace ptcp::test
