// CShmZARNLibClientChannel_test.cpp - what only the shared-memory client channel does. The rules of
// all client channels are checked in ClientChannel*_test.cpp. Over scripted connectors and a clock
// that is moved by hand.
#include "zarn/utils/CShmZARNLibClientChannel.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "NetworkThread.h"
#include "RecordingChannel.h"
#include "TempRoot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Counts its upcalls and ticks.
struct CountingClient : ShmClientWorld::Channel {
  int ticks = 0;
  int closes = 0;
  std::vector<long> failures;
  std::vector<long> peerDisconnects;

  void OnTimer(keelbase::CAWTimerWrapperID* timer) override {
    ++ticks;
    Recording::OnTimer(timer);
  }
  void OnClose() override {
    ++closes;
    Recording::OnClose();
  }
  void OnConnectFailure(long reason) override {
    failures.push_back(reason);
    Recording::OnConnectFailure(reason);
  }
  void OnPeerDisconnect(long reason) override {
    peerDisconnects.push_back(reason);
    Recording::OnPeerDisconnect(reason);
  }
};

class CShmZARNLibClientChannelRules : public ::testing::Test, public ClientFixture<ShmClientWorld> {
 protected:
  CountingClient counting;
};

// --- Init ---

TEST_F(CShmZARNLibClientChannelRules, InitConnectsThePairsAsTheyAreAndNeedsNoInstallRoot) {
  ScopedEnv none("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(client->Init(3, 4, 1, 2), AW_OK);
  EXPECT_EQ(manager.Last().local, fshmipc::CAWShmIPCAddr(3, 4));
  EXPECT_EQ(manager.Last().peer, fshmipc::CAWShmIPCAddr(1, 2));
}

TEST_F(CShmZARNLibClientChannelRules, PeerThatIsNotThereIsTriedAtOnceAndThenEverySecond) {
  counting.Init(3, 4, 1, 2);
  EXPECT_EQ(manager.requests, 1);
  for (int attempt = 2; attempt < 20; ++attempt) {
    manager.Last().Complete(ENOENT, nullptr);
    clock.Advance(milliseconds(999));
    EXPECT_EQ(manager.requests, attempt - 1);
    clock.Advance(milliseconds(1));
    EXPECT_EQ(manager.requests, attempt);
  }
  EXPECT_EQ(counting.failures, std::vector<long>(18, ENOENT));
  EXPECT_TRUE(counting.peerDisconnects.empty());
}

TEST_F(CShmZARNLibClientChannelRules, TimerIsRunningAlreadyWhenInitConnects) {
  struct Waiting : ShmClientWorld::Channel {
    explicit Waiting(HandClock& hand) : clock(hand) {}
    HandClock& clock;
    std::vector<std::uint32_t> retries;  // at each Connect
    AWResult Connect(const fshmipc::CAWShmIPCAddr&, fshmipc::CAWShmIPCAddr*) override {
      retries.push_back(GetRetryCount());
      if (retries.size() == 1) clock.Advance(seconds(1));
      return AW_OK;
    }
  };
  Waiting waiting(clock);
  waiting.Init(3, 4, 1, 2);
  EXPECT_EQ(waiting.retries, (std::vector<std::uint32_t>{0, 1}));
}

TEST_F(CShmZARNLibClientChannelRules, AttemptsKeepTheBeatOfInitWheneverAConnectFails) {
  client->Init(3, 4, 1, 2);
  clock.Advance(milliseconds(700));
  manager.Last().Complete(ECONNREFUSED, nullptr);
  clock.Advance(milliseconds(300));
  EXPECT_EQ(manager.requests, 2);
}

TEST_F(CShmZARNLibClientChannelRules, InitWithoutAConnectorAnswers10001AndGoesOnTryingAllTheSame) {
  manager.createResult = 10012;
  EXPECT_EQ(client->Init(3, 4, 1, 2), AW_ERROR_FAILURE);
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.requests, 2);
  manager.createResult = AW_OK;
  CompleteAttemptOfATick();
  EXPECT_TRUE(client->IsConnected());
}

TEST_F(CShmZARNLibClientChannelRules, ConnectThatSucceedsAtOnceCancelsTheTimerOfInit) {
  counting.Init(3, 4, 1, 2);
  auto transport = CompleteLast();
  EXPECT_TRUE(counting.IsConnected());
  clock.Advance(seconds(10));
  EXPECT_EQ(counting.ticks, 0);
  EXPECT_EQ(manager.requests, 1);
  EXPECT_TRUE(transport->disconnects.empty());
}

TEST_F(CShmZARNLibClientChannelRules, InitOfAConnectedChannelGoesOnTryingANewPeerThatIsNotThere) {
  auto transport = ConnectFully();
  client->Init(3, 4, 5, 6);
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_FALSE(client->IsConnected());
  manager.Last().Complete(ENOENT, nullptr);
  CompleteAttemptOfATick();
  EXPECT_EQ(manager.Last().peer, fshmipc::CAWShmIPCAddr(5, 6));
  EXPECT_TRUE(client->IsConnected());
}

TEST_F(CShmZARNLibClientChannelRules, ConnectionThatCannotBeOpenedLeavesTheAttemptsToTheTimer) {
  counting.Init(3, 4, 1, 2);
  auto broken = NewTransport();
  broken->openResult = AW_ERROR_FAILURE;
  manager.Last().Complete(0, broken.Get());
  EXPECT_EQ(counting.failures, std::vector<long>{AW_ERROR_FAILURE});
  EXPECT_FALSE(counting.IsConnected());
  EXPECT_EQ(broken->GetReferences(), 1U);
  CompleteAttemptOfATick();
  EXPECT_TRUE(counting.IsConnected());
}

// --- losing the connection ---

TEST_F(CShmZARNLibClientChannelRules, TeardownInTheReceivePathCallsOnCloseAndStartsTheTimer) {
  counting.Init(3, 4, 1, 2);
  auto transport = CompleteLast();
  counting.onMessage = [&] { counting.Close(0); };
  transport->Receive(Frame(1, 1, "one"));
  EXPECT_EQ(counting.closes, 1);
  EXPECT_TRUE(counting.peerDisconnects.empty());
  EXPECT_FALSE(counting.IsConnected());
  CompleteAttemptOfATick();
  EXPECT_TRUE(counting.IsConnected());
  clock.Advance(seconds(10));
  EXPECT_EQ(counting.ticks, 1);
}

TEST_F(CShmZARNLibClientChannelRules, EndOfTheConnectionClosesWithItsReasonAndStartsTheTimer) {
  counting.Init(3, 4, 1, 2);
  CompleteLast()->End(ECONNRESET);
  EXPECT_EQ(counting.peerDisconnects, std::vector<long>{ECONNRESET});
  EXPECT_EQ(counting.closes, 0);
  EXPECT_TRUE(counting.IsClosed());
  EXPECT_EQ(manager.Last().GetReferences(), 1U);  // Close has released the connector
  CompleteAttemptOfATick();
  EXPECT_TRUE(counting.IsConnected());
}

// --- sending ---

TEST_F(CShmZARNLibClientChannelRules, EmptyMessageOnAnUnconnectedClientAnswers10001) {
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_FAILURE);
  client->Init(3, 4, 1, 2);
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_FAILURE);
  EXPECT_EQ(client->GetSendQueueLength(), 0U);
}

}  // namespace
}  // namespace zarn::test
