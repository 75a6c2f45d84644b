// PtcpFailingCalls_test.cpp - connections over a port that the system takes nothing from for a
// while, with memory and without.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "Exhaustion.h"
#include "FailingCalls.h"
#include "PtcpConnection.h"
#include "RealPtcp.h"
#include "TraceLines.h"
#include "UdpSocket.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/ManualClock.h"

namespace ptcp::test {
namespace {

using zarn::test::FailingCalls;

class PtcpFailingCalls : public RealPtcp {
 protected:
  void SetUp() override {
    RealPtcp::SetUp();
    Listen();
  }
  void Begin() {
    Connect();
    clientSink = {};
    serverSink = {};
    Open();
  }
  bool IsOver() const { return clientSink.ended || serverSink.ended; }

  zarn::test::TraceLines trace;
};

TEST_F(PtcpFailingCalls, BlockedPortHoldsUpItsConnectionsAndLosesNothing) {
  Begin();
  const std::string text = Pattern(1000000);
  const FailingCalls full("sendmsg", EAGAIN, 20);
  ASSERT_EQ(SendText(*client, text), keelbase::AW_OK);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received.size() >= text.size(); }));
  EXPECT_TRUE(serverSink.received == text);
  EXPECT_EQ(full.GetFailed(), 20);
  EXPECT_FALSE(IsOver());
}

TEST_F(PtcpFailingCalls, DatagramsAreLongOnlyWhenTheLoopbackDeviceIsKnownToTakeThem) {
  const CAWInetAddr any = Loopback();
  UdpSocket peer;
  ASSERT_EQ(peer.Open(&any, nullptr), 0);
  const auto sizeOfFirst = [&] {
    EXPECT_EQ(connector->AsyncConnect(&connected, peer.GetLocalAddr(), nullptr, nullptr),
              keelbase::AW_OK);
    std::array<char, 65536> room;
    UdpSocket::Received first;
    EXPECT_TRUE(WaitFor([&] { return peer.Read(room, first) == 0; }));
    const std::size_t size = first.data.size();
    connector->CancelConnect();
    while (peer.Read(room, first) == 0) {  // the end of that
    }
    return size;
  };
  EXPECT_EQ(sizeOfFirst(), kMaxDatagramLoopback);
  const FailingCalls unknown("ioctl", ENODEV);
  EXPECT_LE(sizeOfFirst(), kMaxDatagram);
}

// The ports are full at one turn's end, and then lose everything.
struct FullThenLost final : keelbase::internal::TurnEndTask {
  void OnTurnEnd() override {
    EXPECT_EQ(calls->GetFailed(), 2);
    calls.reset();
    calls.emplace("sendmsg", ENOBUFS);
  }
  std::optional<FailingCalls> calls{std::in_place, "sendmsg", EAGAIN, 2};
};

TEST_F(PtcpFailingCalls, WhoHasBlockedThePortItselfStillNoticesThatThePeerIsGone) {
  Begin();
  ASSERT_EQ(SendText(*client, "first"), keelbase::AW_OK);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received == "first"; }));
  keelbase::internal::ManualClock clock;
  auto& loop = keelbase::CAWThreadManager::Instance()
                   ->GetThread(keelbase::CAWThreadManager::TT_NETWORK)
                   ->GetLoop();
  FullThenLost system;
  keelbase::internal::Timer behind(loop);
  // Both ends ask for a sign of life before.
  behind.Start(std::chrono::seconds(4), 1, [&] { loop.AtTurnEnd(system); });
  for (int i = 0; i < 8; ++i) {
    clock.Advance(std::chrono::seconds(4));
    zarn::test::RunReady();
  }
  for (const Recorder* sink : {&clientSink, &serverSink}) {
    EXPECT_TRUE(sink->ended);
    EXPECT_EQ(sink->reason, ETIMEDOUT);
  }
}

TEST_F(PtcpFailingCalls, WhoFindsNoMemoryToWaitForABlockedPortEndsWithAReason) {
  const std::string text = Pattern(100000);
  int ended = 0;
  for (zarn::test::EachAllocation each; each.Next();) {
    Begin();
    std::size_t taken = 0;
    const auto send = [&] {
      if (SendText(*client, text) == keelbase::AW_OK) taken += text.size();
      zarn::test::RunReady();
    };
    {
      const zarn::test::EmptyPool pool;
      const FailingCalls full("sendmsg", EAGAIN, 3);
      each.Try([&] {
        send();
        send();
      });
    }
    EXPECT_TRUE(WaitFor([&] { return serverSink.received.size() == taken || IsOver(); }));
    EXPECT_EQ(serverSink.received, (text + text).substr(0, serverSink.received.size()));
    EXPECT_TRUE(each.HasFailed() || !IsOver());
    // Who has no memory ends, and its peer is told, or would notice the silence in time.
    for (const Recorder* sink : {&clientSink, &serverSink})
      EXPECT_TRUE(!sink->ended || sink->reason == ENOMEM || sink->reason == ECONNRESET);
    ended += IsOver() ? 1 : 0;
    ASSERT_FALSE(HasFailure()) << "allocation " << each.GetNumber();
  }
  EXPECT_GE(ended, 1);
}

TEST_F(PtcpFailingCalls, OneThatLeavesWhileThePortIsBlockedIsNotServedByItAnyMore) {
  Begin();
  {
    const FailingCalls full("sendmsg", EAGAIN, 5);
    std::uint32_t none = 0;
    client->SetOption(keelbase::AW_OPT_LINGER, &none);
    EXPECT_EQ(SendText(*client, Pattern(100000)), keelbase::AW_OK);
    EXPECT_EQ(SendText(*client, "more"), keelbase::AW_OK);
    client->Disconnect(0);
    client = nullptr;
  }
  EXPECT_TRUE(WaitFor([&] { return serverSink.ended; }));
  Begin();
  EXPECT_EQ(SendText(*client, "next"), keelbase::AW_OK);
  EXPECT_TRUE(WaitFor([&] { return serverSink.received == "next"; }));
}

}  // namespace
}  // namespace ptcp::test
