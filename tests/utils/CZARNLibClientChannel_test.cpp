// CZARNLibClientChannel_test.cpp - connecting and reconnecting of the client channel, over scripted
// connectors and a clock that is moved by hand.
#include "zarn/utils/CZARNLibClientChannel.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "FakeIpc.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"
#include "TempRoot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using std::chrono::milliseconds;
using std::chrono::seconds;

class CZARNLibClientChannelConnect : public ::testing::Test, public ClientFixture {};

// --- Init ---

TEST_F(CZARNLibClientChannelConnect, InitConnectsFromTheOwnEndpointToThePeers) {
  EXPECT_EQ(client->Init(3, 4, 1, 2), AW_OK);
  ASSERT_EQ(manager.connectors.size(), 1U);
  EXPECT_EQ(manager.Last().peerPath, root.GetIpcPath("1_2"));
  EXPECT_EQ(manager.Last().localPath, root.GetIpcPath("3_4"));
  EXPECT_EQ(manager.Last().parameter, 0U);
  EXPECT_TRUE(std::filesystem::is_directory(root.GetIpcPath("")));
}

TEST_F(CZARNLibClientChannelConnect, InitDoesNotStartTheReconnectTimer) {
  client->Init(3, 4, 1, 2);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
}

TEST_F(CZARNLibClientChannelConnect, InitThatFailsAtOnceReturnsTheErrorAndSchedulesNoRetry) {
  manager.createResult = 10012;
  EXPECT_EQ(client->Init(3, 4, 1, 2), 10012U);
  manager.createResult = AW_OK;
  clock.Advance(seconds(10));
  EXPECT_TRUE(manager.connectors.empty());
}

TEST_F(CZARNLibClientChannelConnect, InitMayBeCalledAgainWithOtherNumbers) {
  client->Init(3, 4, 1, 2);
  EXPECT_EQ(client->Init(3, 4, 5, 6), AW_OK);
  EXPECT_EQ(manager.connectors[0]->cancels, 1);
  EXPECT_EQ(manager.Last().peerPath, root.GetIpcPath("5_6"));
}

TEST_F(CZARNLibClientChannelConnect, InitWithoutAnInstallRootAnswers10001AndTriesNothing) {
  ScopedEnv none("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(client->Init(3, 4, 1, 2), AW_ERROR_FAILURE);
  clock.Advance(seconds(10));
  EXPECT_TRUE(manager.kinds.empty());
}

// --- connected ---

TEST_F(CZARNLibClientChannelConnect, OnConnectedAnswersOneAndSendsNothing) {
  auto transport = ConnectFully();
  EXPECT_TRUE(transport->offered.empty());
  EXPECT_EQ(client->OnConnected(0), 1);
}

TEST_F(CZARNLibClientChannelConnect, ConnectedChannelMakesNoFurtherAttempts) {
  ConnectFully();
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
}

// --- reconnecting ---

TEST_F(CZARNLibClientChannelConnect, FailedConnectIsTriedAgainEverySecondForEver) {
  client->Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  for (std::size_t attempt = 2; attempt < 50; ++attempt) {
    clock.Advance(milliseconds(999));
    ASSERT_EQ(manager.connectors.size(), attempt - 1);
    clock.Advance(milliseconds(1));
    ASSERT_EQ(manager.connectors.size(), attempt);
    EXPECT_EQ(manager.Last().peerPath, root.GetIpcPath("1_2"));
    EXPECT_EQ(manager.Last().localPath, root.GetIpcPath("3_4"));
    manager.Last().Complete(ECONNREFUSED, nullptr);
  }
}

TEST_F(CZARNLibClientChannelConnect, AttemptThatIsStillPendingAfterASecondIsReplaced) {
  client->Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  clock.Advance(seconds(1));
  clock.Advance(seconds(1));
  ASSERT_EQ(manager.connectors.size(), 3U);
  EXPECT_EQ(manager.connectors[1]->cancels, 1);
  EXPECT_EQ(manager.connectors[1]->GetReferences(), 1U);
  EXPECT_TRUE(manager.connectors[2]->IsPending());
}

TEST_F(CZARNLibClientChannelConnect, AttemptsGoOnWhenNoConnectorCanBeMade) {
  client->Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  manager.createResult = AW_ERROR_FAILURE;
  clock.Advance(seconds(1));
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.kinds.size(), 3U);
  manager.createResult = AW_OK;
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.connectors.size(), 2U);
}

TEST_F(CZARNLibClientChannelConnect, AttemptThatSucceedsEndsTheTimer) {
  client->Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  clock.Advance(seconds(1));
  auto transport = CompleteLast();
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 2U);
  EXPECT_TRUE(transport->disconnects.empty());
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TEST_F(CZARNLibClientChannelConnect, NoTickComesOnceTheChannelIsConnected) {
  struct Ticking : RecordingClient {
    int ticks = 0;
    void OnTimer(keelbase::CAWTimerWrapperID* timer) override {
      ++ticks;
      RecordingClient::OnTimer(timer);
    }
  };
  Ticking ticking;
  ticking.Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  clock.Advance(seconds(1));
  CompleteLast();
  clock.Advance(seconds(10));
  EXPECT_EQ(ticking.ticks, 1);
}

TEST_F(CZARNLibClientChannelConnect, ChannelIsBackWithinASecondOfThePeersReturn) {
  auto transport = ConnectFully();
  transport->End(0);
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  clock.Advance(seconds(1));
  ASSERT_EQ(manager.connectors.size(), 2U);
  auto fresh = CompleteLast();
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_OK);
  EXPECT_EQ(fresh->wire, Frame(1, 2, "x"));
  fresh->Receive(Frame(7, 8, "back"));
  EXPECT_EQ(Payloads(client->messages), std::vector<std::string>{"back"});
}

TEST_F(CZARNLibClientChannelConnect, RetriesAreCountedAndAConnectionStartsTheCountAnew) {
  client->Init(3, 4, 1, 2);
  EXPECT_EQ(client->GetRetryCount(), 0U);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  for (std::uint32_t retry = 1; retry <= 3; ++retry) {
    clock.Advance(seconds(1));
    EXPECT_EQ(client->GetRetryCount(), retry);
    if (retry < 3) manager.Last().Complete(ECONNREFUSED, nullptr);
  }
  CompleteLast();
  EXPECT_EQ(client->GetRetryCount(), 0U);
}

TEST_F(CZARNLibClientChannelConnect, DisconnectDropsWhatWasHalfReceived) {
  auto transport = ConnectFully();
  transport->Receive(Frame(1, 1, "old").substr(0, 14));
  transport->End(0);
  clock.Advance(seconds(1));
  CompleteLast()->Receive(Frame(2, 2, "new"));
  EXPECT_EQ(Payloads(client->messages), std::vector<std::string>{"new"});
}

TEST_F(CZARNLibClientChannelConnect, RootThatDisappearsWhileRunningIsTriedAgainWhenItIsBack) {
  auto transport = ConnectFully();
  std::filesystem::rename(root.GetPath() + "/system", root.GetPath() + "/away");
  transport->End(0);
  clock.Advance(seconds(1));
  clock.Advance(seconds(1));
  std::filesystem::rename(root.GetPath() + "/away", root.GetPath() + "/system");
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.Last().peerPath, root.GetIpcPath("1_2"));
  CompleteLast();
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TEST_F(CZARNLibClientChannelConnect, TickWhileConnectedOnlyEndsTheTimer) {
  client->Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  auto transport = CompleteAttemptOfATick();
  client->OnTimer(nullptr);
  EXPECT_EQ(manager.connectors.size(), 2U);
  EXPECT_TRUE(transport->disconnects.empty());
}

// --- OnClose, Close and overflow ---

TEST_F(CZARNLibClientChannelConnect, OnCloseDropsTheConnectionAndReconnectsInASecond) {
  auto transport = ConnectFully();
  client->OnClose();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_TRUE(client->IsClosed());
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  clock.Advance(seconds(1));
  ASSERT_EQ(manager.connectors.size(), 2U);
  CompleteLast();
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TEST_F(CZARNLibClientChannelConnect, OverflowKeepsTheChannelDownUntilTheOwnerActs) {
  auto transport = ConnectFully();
  client->OnRcvBufferOverFlow(1);
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_TRUE(client->IsClosed());
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
  client->OnClose();
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.connectors.size(), 2U);
}

TEST_F(CZARNLibClientChannelConnect, InitBringsAChannelBackAfterAnOverflow) {
  ConnectFully();
  client->OnRcvBufferOverFlow(1);
  EXPECT_EQ(client->Init(3, 4, 1, 2), AW_OK);
  CompleteLast();
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TEST_F(CZARNLibClientChannelConnect, PeerDisconnectClosesWithTheReasonGiven) {
  auto transport = ConnectFully();
  client->OnPeerDisconnect(9);
  EXPECT_EQ(transport->disconnects, std::vector<long>{9});
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.connectors.size(), 2U);
}

TEST_F(CZARNLibClientChannelConnect, OnConnectFailureDoesNothing) {
  auto transport = ConnectFully();
  client->OnConnectFailure(ECONNREFUSED);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
  EXPECT_TRUE(transport->disconnects.empty());
}

TEST_F(CZARNLibClientChannelConnect, OnCloseInsideAMessageEndsDeliveryAndReconnectsOnce) {
  auto transport = ConnectFully();
  client->onMessage = [&] { client->OnClose(); };
  transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(Payloads(client->messages), std::vector<std::string>{"one"});
  EXPECT_EQ(transport->GetReferences(), 1U);
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.connectors.size(), 2U);
}

TEST_F(CZARNLibClientChannelConnect, PayloadStaysValidWhenTheMessageClosesTheChannel) {
  auto transport = ConnectFully();
  const std::string payload(60000, 'p');
  client->onMessage = [&] { client->OnClose(); };
  client->readAfterHook = true;
  transport->Receive(Frame(1, 1, payload).substr(0, 30000));
  transport->Receive(Frame(1, 1, payload).substr(30000));
  ASSERT_EQ(client->messages.size(), 1U);
  EXPECT_EQ(client->messages[0].payload, payload);
}

TEST_F(CZARNLibClientChannelConnect, InitInsideAMessageGivesAConnectionThatTheOldBytesDoNotTouch) {
  auto transport = ConnectFully();
  client->onMessage = [&] {
    client->Close(0);
    client->Init(3, 4, 5, 6);
  };
  transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  client->onMessage = nullptr;
  EXPECT_TRUE(manager.Last().IsPending());
  CompleteLast()->Receive(Frame(3, 3, "three"));
  EXPECT_EQ(Payloads(client->messages), (std::vector<std::string>{"one", "three"}));
}

// --- deleting the channel in its upcalls ---

TEST_F(CZARNLibClientChannelConnect, DeletingTheChannelInsideAMessageIsAllowed) {
  auto transport = ConnectFully();
  client->onMessage = [&] { client.reset(); };
  transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(client, nullptr);
  EXPECT_EQ(transport->GetReferences(), 1U);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
}

// Deletes itself when the peer is lost, after the channel's own reaction.
struct SelfDeletingClient : RecordingClient {
  void OnPeerDisconnect(long reason) override {
    RecordingClient::OnPeerDisconnect(reason);
    delete this;
  }
};

TEST_F(CZARNLibClientChannelConnect, DeletingTheChannelWhenThePeerIsLostEndsTheAttempts) {
  (new SelfDeletingClient)->Init(3, 4, 1, 2);
  CompleteLast()->End(0);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
}

TEST_F(CZARNLibClientChannelConnect, DeletingTheChannelWhenAConnectFailsEndsTheAttempts) {
  (new SelfDeletingClient)->Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
}

TEST_F(CZARNLibClientChannelConnect, DeletingTheChannelInsideItsTickIsAllowed) {
  struct SelfDeleting : RecordingClient {
    void OnTimer(keelbase::CAWTimerWrapperID* timer) override {
      RecordingClient::OnTimer(timer);
      delete this;
    }
  };
  (new SelfDeleting)->Init(3, 4, 1, 2);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  clock.Advance(seconds(1));
  clock.Advance(seconds(10));
  ASSERT_EQ(manager.connectors.size(), 2U);
  EXPECT_FALSE(manager.Last().IsPending());
}

// --- the end ---

TEST_F(CZARNLibClientChannelConnect, DestructorClosesAndNoTickComesAfterIt) {
  auto transport = ConnectFully();
  client->OnClose();
  client.reset();
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TEST_F(CZARNLibClientChannelConnect, DestructorOfAConnectedChannelLosesNothingThatWasAccepted) {
  auto transport = ConnectFully();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  EXPECT_EQ(client->SendZARNMessage(1, 2, "goodbye", 7), AW_OK);
  client.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->wire + transport->lingerData, Frame(1, 2, "goodbye"));
}

}  // namespace
}  // namespace zarn::test
