// ClientChannel_test.cpp - connecting and reconnecting of every client channel, over scripted
// connectors and a clock that is moved by hand.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "NetworkThread.h"
#include "RecordingChannel.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using std::chrono::milliseconds;
using std::chrono::seconds;

template <class World>
class ClientChannelConnect : public ::testing::Test, public ClientFixture<World> {};

TYPED_TEST_SUITE(ClientChannelConnect, ClientWorlds, WorldNames);

// --- Init ---

TYPED_TEST(ClientChannelConnect, InitConnectsFromTheOwnEndpointToThePeers) {
  EXPECT_EQ(this->client->Init(3, 4, 1, 2), AW_OK);
  ASSERT_EQ(this->manager.connectors.size(), 1U);
  EXPECT_EQ(this->manager.Last().peer, this->Endpoint(1, 2));
  EXPECT_EQ(this->manager.Last().local, this->Endpoint(3, 4));
  EXPECT_EQ(this->manager.Last().parameter, 0U);
}

TYPED_TEST(ClientChannelConnect, InitMayBeCalledAgainWithOtherNumbers) {
  this->client->Init(3, 4, 1, 2);
  EXPECT_EQ(this->client->Init(3, 4, 5, 6), AW_OK);
  EXPECT_EQ(this->manager.connectors[0]->cancels, 1);
  EXPECT_EQ(this->manager.Last().peer, this->Endpoint(5, 6));
}

// --- connected ---

TYPED_TEST(ClientChannelConnect, OnConnectedAnswersOneAndSendsNothing) {
  auto transport = this->ConnectFully();
  EXPECT_TRUE(transport->offered.empty());
  EXPECT_EQ(this->client->OnConnected(0), 1);
}

TYPED_TEST(ClientChannelConnect, ConnectedChannelMakesNoFurtherAttempts) {
  this->ConnectFully();
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
}

// --- reconnecting ---

TYPED_TEST(ClientChannelConnect, FailedConnectIsTriedAgainEverySecondForEver) {
  this->client->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  for (std::size_t attempt = 2; attempt < 50; ++attempt) {
    this->clock.Advance(milliseconds(999));
    ASSERT_EQ(this->manager.connectors.size(), attempt - 1);
    this->clock.Advance(milliseconds(1));
    ASSERT_EQ(this->manager.connectors.size(), attempt);
    EXPECT_EQ(this->manager.Last().peer, this->Endpoint(1, 2));
    EXPECT_EQ(this->manager.Last().local, this->Endpoint(3, 4));
    this->manager.Last().Complete(ECONNREFUSED, nullptr);
  }
}

TYPED_TEST(ClientChannelConnect, AttemptThatIsStillPendingAfterASecondIsReplaced) {
  this->client->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  this->clock.Advance(seconds(1));
  this->clock.Advance(seconds(1));
  ASSERT_EQ(this->manager.connectors.size(), 3U);
  EXPECT_EQ(this->manager.connectors[1]->cancels, 1);
  EXPECT_EQ(this->manager.connectors[1]->GetReferences(), 1U);
  EXPECT_TRUE(this->manager.connectors[2]->IsPending());
}

TYPED_TEST(ClientChannelConnect, AttemptsGoOnWhenNoConnectorCanBeMade) {
  this->client->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  this->manager.createResult = AW_ERROR_FAILURE;
  this->clock.Advance(seconds(1));
  this->clock.Advance(seconds(1));
  EXPECT_EQ(this->manager.requests, 3);
  this->manager.createResult = AW_OK;
  this->clock.Advance(seconds(1));
  EXPECT_EQ(this->manager.connectors.size(), 2U);
}

TYPED_TEST(ClientChannelConnect, AttemptThatSucceedsEndsTheTimer) {
  this->client->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  this->clock.Advance(seconds(1));
  auto transport = this->CompleteLast();
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 2U);
  EXPECT_TRUE(transport->disconnects.empty());
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TYPED_TEST(ClientChannelConnect, NoTickComesOnceTheChannelIsConnected) {
  struct Ticking : TypeParam::Channel {
    int ticks = 0;
    void OnTimer(keelbase::CAWTimerWrapperID* timer) override {
      ++ticks;
      TypeParam::Channel::OnTimer(timer);
    }
  };
  Ticking ticking;
  ticking.Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  this->clock.Advance(seconds(1));
  this->CompleteLast();
  this->clock.Advance(seconds(10));
  EXPECT_EQ(ticking.ticks, 1);
}

TYPED_TEST(ClientChannelConnect, ChannelIsBackWithinASecondOfThePeersReturn) {
  auto transport = this->ConnectFully();
  transport->End(0);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  this->clock.Advance(seconds(1));
  ASSERT_EQ(this->manager.connectors.size(), 2U);
  auto fresh = this->CompleteLast();
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_OK);
  EXPECT_EQ(fresh->wire, Frame(1, 2, "x"));
  fresh->Receive(Frame(7, 8, "back"));
  EXPECT_EQ(Payloads(this->client->messages), std::vector<std::string>{"back"});
}

TYPED_TEST(ClientChannelConnect, RetriesAreCountedAndAConnectionStartsTheCountAnew) {
  this->client->Init(3, 4, 1, 2);
  EXPECT_EQ(this->client->GetRetryCount(), 0U);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  for (std::uint32_t retry = 1; retry <= 3; ++retry) {
    this->clock.Advance(seconds(1));
    EXPECT_EQ(this->client->GetRetryCount(), retry);
    if (retry < 3) this->manager.Last().Complete(ECONNREFUSED, nullptr);
  }
  this->CompleteLast();
  EXPECT_EQ(this->client->GetRetryCount(), 0U);
}

TYPED_TEST(ClientChannelConnect, DisconnectDropsWhatWasHalfReceived) {
  auto transport = this->ConnectFully();
  transport->Receive(Frame(1, 1, "old").substr(0, 14));
  transport->End(0);
  this->clock.Advance(seconds(1));
  this->CompleteLast()->Receive(Frame(2, 2, "new"));
  EXPECT_EQ(Payloads(this->client->messages), std::vector<std::string>{"new"});
}

TYPED_TEST(ClientChannelConnect, WhatAConnectionLeftUnsentIsNotSentOverTheNextOne) {
  auto transport = this->ConnectFully();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  transport->AnswerNext(EPIPE, 0);
  this->client->SendZARNMessage(1, 2, "cut", 3);
  this->client->SendZARNMessage(1, 2, "refused", 7);
  transport->End(0);
  auto fresh = this->CompleteAttemptOfATick();
  fresh->ReadyToSend();
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "new", 3), AW_OK);
  EXPECT_EQ(fresh->wire, Frame(1, 2, "new"));
}

TYPED_TEST(ClientChannelConnect, TickWhileConnectedOnlyEndsTheTimer) {
  this->client->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  auto transport = this->CompleteAttemptOfATick();
  this->client->OnTimer(nullptr);
  EXPECT_EQ(this->manager.connectors.size(), 2U);
  EXPECT_TRUE(transport->disconnects.empty());
}

// --- OnClose, Close and overflow ---

TYPED_TEST(ClientChannelConnect, OnCloseDropsTheConnectionAndReconnectsInASecond) {
  auto transport = this->ConnectFully();
  this->client->OnClose();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_TRUE(this->client->IsClosed());
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  this->clock.Advance(seconds(1));
  ASSERT_EQ(this->manager.connectors.size(), 2U);
  this->CompleteLast();
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TYPED_TEST(ClientChannelConnect, ClosedChannelIsNotConnectedUntilTheNextOnConnected) {
  this->ConnectFully();
  this->client->Close(0);
  EXPECT_FALSE(this->client->IsConnected());
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(this->client->Init(3, 4, 1, 2), AW_OK);
  EXPECT_FALSE(this->client->IsConnected());
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  this->CompleteLast();
  EXPECT_TRUE(this->client->IsConnected());
}

TYPED_TEST(ClientChannelConnect, SubclassCanTellALossFromAFailedAttempt) {
  struct Telling : TypeParam::Channel {
    std::vector<bool> wereConnected;
    void OnPeerDisconnect(long reason) override {
      wereConnected.push_back(this->IsConnected());
      TypeParam::Channel::OnPeerDisconnect(reason);
    }
    void OnConnectFailure(long reason) override {
      wereConnected.push_back(this->IsConnected());
      TypeParam::Channel::OnConnectFailure(reason);
    }
  };
  Telling telling;
  telling.Init(3, 4, 1, 2);
  this->CompleteLast()->End(ECONNRESET);
  EXPECT_FALSE(telling.IsConnected());
  this->clock.Advance(seconds(1));
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  EXPECT_EQ(telling.wereConnected, (std::vector<bool>{true, false}));
}

TYPED_TEST(ClientChannelConnect, InitOnAConnectedChannelEndsItsConnection) {
  auto transport = this->ConnectFully();
  EXPECT_EQ(this->client->Init(3, 4, 5, 6), AW_OK);
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_FALSE(this->client->IsConnected());
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  this->CompleteLast();
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TYPED_TEST(ClientChannelConnect, CloseAndOverflowLeaveAttemptsThatAreGoingOn) {
  this->client->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  this->client->Close(0);
  this->clock.Advance(seconds(1));
  EXPECT_EQ(this->manager.connectors.size(), 2U);
  this->client->OnRcvBufferOverFlow(1);
  this->CompleteAttemptOfATick();
  EXPECT_EQ(this->manager.connectors.size(), 3U);
  EXPECT_TRUE(this->client->IsConnected());
}

TYPED_TEST(ClientChannelConnect, OverflowKeepsTheChannelDownUntilTheOwnerActs) {
  auto transport = this->ConnectFully();
  this->client->OnRcvBufferOverFlow(1);
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_FALSE(this->client->IsConnected());
  EXPECT_TRUE(this->client->IsClosed());
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
  this->client->OnClose();
  this->clock.Advance(seconds(1));
  EXPECT_EQ(this->manager.connectors.size(), 2U);
}

TYPED_TEST(ClientChannelConnect, InitBringsAChannelBackAfterAnOverflow) {
  this->ConnectFully();
  this->client->OnRcvBufferOverFlow(1);
  EXPECT_EQ(this->client->Init(3, 4, 1, 2), AW_OK);
  this->CompleteLast();
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TYPED_TEST(ClientChannelConnect, PeerDisconnectClosesWithTheReasonGiven) {
  auto transport = this->ConnectFully();
  this->client->OnPeerDisconnect(9);
  EXPECT_EQ(transport->disconnects, std::vector<long>{9});
  this->clock.Advance(seconds(1));
  EXPECT_EQ(this->manager.connectors.size(), 2U);
}

TYPED_TEST(ClientChannelConnect, OnConnectFailureDoesNothing) {
  auto transport = this->ConnectFully();
  this->client->OnConnectFailure(ECONNREFUSED);
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
  EXPECT_TRUE(transport->disconnects.empty());
}

TYPED_TEST(ClientChannelConnect, CloseInsideAMessageReconnectsInASecond) {
  auto transport = this->ConnectFully();
  this->client->onMessage = [&] { this->client->Close(0); };
  transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(Payloads(this->client->messages), std::vector<std::string>{"one"});
  EXPECT_FALSE(this->client->IsConnected());
  this->clock.Advance(milliseconds(999));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
  this->CompleteAttemptOfATick();
  EXPECT_EQ(this->manager.connectors.size(), 2U);
  EXPECT_TRUE(this->client->IsConnected());
}

TYPED_TEST(ClientChannelConnect, OnCloseInsideAMessageEndsDeliveryAndReconnectsOnce) {
  auto transport = this->ConnectFully();
  this->client->onMessage = [&] { this->client->OnClose(); };
  transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(Payloads(this->client->messages), std::vector<std::string>{"one"});
  EXPECT_EQ(transport->GetReferences(), 1U);
  this->clock.Advance(seconds(1));
  EXPECT_EQ(this->manager.connectors.size(), 2U);
}

TYPED_TEST(ClientChannelConnect, PayloadStaysValidWhenTheMessageClosesTheChannel) {
  auto transport = this->ConnectFully();
  const std::string payload(60000, 'p');
  this->client->onMessage = [&] { this->client->OnClose(); };
  this->client->readAfterHook = true;
  transport->Receive(Frame(1, 1, payload).substr(0, 30000));
  transport->Receive(Frame(1, 1, payload).substr(30000));
  ASSERT_EQ(this->client->messages.size(), 1U);
  EXPECT_EQ(this->client->messages[0].payload, payload);
}

TYPED_TEST(ClientChannelConnect, InitInsideAMessageGivesAConnectionThatTheOldBytesDoNotTouch) {
  auto transport = this->ConnectFully();
  this->client->onMessage = [&] {
    this->client->Close(0);
    this->client->Init(3, 4, 5, 6);
  };
  transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  this->client->onMessage = nullptr;
  EXPECT_TRUE(this->manager.Last().IsPending());
  this->CompleteLast()->Receive(Frame(3, 3, "three"));
  EXPECT_EQ(Payloads(this->client->messages), (std::vector<std::string>{"one", "three"}));
}

// --- deleting the channel in its upcalls ---

TYPED_TEST(ClientChannelConnect, DeletingTheChannelInsideAMessageIsAllowed) {
  auto transport = this->ConnectFully();
  this->client->onMessage = [&] { this->client.reset(); };
  transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(this->client, nullptr);
  EXPECT_EQ(transport->GetReferences(), 1U);
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
}

// Deletes itself when the peer is lost or not there, after the channel's own reaction.
template <class Client>
struct SelfDeletingClient : Client {
  void OnPeerDisconnect(long reason) override {
    Client::OnPeerDisconnect(reason);
    delete this;
  }
  void OnConnectFailure(long reason) override {
    Client::OnConnectFailure(reason);
    delete this;
  }
};

TYPED_TEST(ClientChannelConnect, DeletingTheChannelWhenThePeerIsLostEndsTheAttempts) {
  (new SelfDeletingClient<typename TypeParam::Channel>)->Init(3, 4, 1, 2);
  this->CompleteLast()->End(0);
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
}

TYPED_TEST(ClientChannelConnect, DeletingTheChannelWhenAConnectFailsEndsTheAttempts) {
  (new SelfDeletingClient<typename TypeParam::Channel>)->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
}

TYPED_TEST(ClientChannelConnect, DeletingTheChannelWhenItIsConnectedEndsTheAttempts) {
  struct SelfDeleting : TypeParam::Channel {
    int OnConnected(long reason) override {
      const int result = TypeParam::Channel::OnConnected(reason);
      delete this;
      return result;
    }
  };
  (new SelfDeleting)->Init(3, 4, 1, 2);
  auto transport = this->CompleteLast();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
}

TYPED_TEST(ClientChannelConnect, DeletingTheChannelInsideItsTickIsAllowed) {
  struct SelfDeleting : TypeParam::Channel {
    void OnTimer(keelbase::CAWTimerWrapperID* timer) override {
      TypeParam::Channel::OnTimer(timer);
      delete this;
    }
  };
  (new SelfDeleting)->Init(3, 4, 1, 2);
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  this->clock.Advance(seconds(1));
  this->clock.Advance(seconds(10));
  ASSERT_EQ(this->manager.connectors.size(), 2U);
  EXPECT_FALSE(this->manager.Last().IsPending());
}

// --- the end ---

TYPED_TEST(ClientChannelConnect, DestructorClosesAndNoTickComesAfterIt) {
  auto transport = this->ConnectFully();
  this->client->OnClose();
  this->client.reset();
  this->clock.Advance(seconds(10));
  EXPECT_EQ(this->manager.connectors.size(), 1U);
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TYPED_TEST(ClientChannelConnect, DestructorOfAConnectedChannelLosesNothingThatWasAccepted) {
  auto transport = this->ConnectFully();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "goodbye", 7), AW_OK);
  this->client.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->wire + transport->lingerData, Frame(1, 2, "goodbye"));
}

}  // namespace
}  // namespace zarn::test
