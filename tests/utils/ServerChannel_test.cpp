// ServerChannel_test.cpp - the life of every server channel, over a scripted transport. What it has
// in common with the client channels is checked in ChannelMessages_test.cpp.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;

template <class World>
class ServerChannelLife : public ::testing::Test, public ServerFixture<World> {};

TYPED_TEST_SUITE(ServerChannelLife, ServerWorlds, WorldNames);

TYPED_TEST(ServerChannelLife, ConstructorOpensTheTransportAndHoldsOneReference) {
  EXPECT_EQ(this->transport->GetSink(),
            static_cast<typename TypeParam::Platform::TransportSink*>(this->server.get()));
  EXPECT_EQ(this->transport->GetReferences(), 2U);
  EXPECT_FALSE(this->server->IsClosed());
}

TYPED_TEST(ServerChannelLife, AddressesAreKnownAfterConstruction) {
  auto named = this->NewTransport();
  named->peer = TypeParam::Endpoint(3);
  named->local = TypeParam::Endpoint(1);
  typename TypeParam::Channel channel(named.Get());
  EXPECT_EQ(channel.GetPeerAddr(), TypeParam::Endpoint(3));
  EXPECT_EQ(channel.GetLocalAddr(), TypeParam::Endpoint(1));
}

TYPED_TEST(ServerChannelLife, ChannelAroundNoTransportIsNotConnected) {
  typename TypeParam::Channel channel(nullptr);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, "x", 1), TypeParam::kNotConnected);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, nullptr, 0), TypeParam::kNotConnected);
  EXPECT_FALSE(channel.IsClosed());
}

TYPED_TEST(ServerChannelLife, SizeIsCheckedBeforeTheTransport) {
  typename TypeParam::Channel channel(nullptr);
  const std::string tooLarge(65524, 'x');
  EXPECT_EQ(channel.SendZARNMessage(1, 2, tooLarge.data(), tooLarge.size()), AW_ERROR_FAILURE);
}

TYPED_TEST(ServerChannelLife, ConstructorIgnoresATransportThatDoesNotOpen) {
  auto broken = this->NewTransport();
  broken->openResult = AW_ERROR_FAILURE;
  {
    typename TypeParam::Channel channel(broken.Get());
    EXPECT_EQ(broken->GetReferences(), 2U);
  }
  EXPECT_EQ(broken->GetReferences(), 1U);
}

TYPED_TEST(ServerChannelLife, MessageAfterThePeerLeftIsRefusedAndStaysTheCallers) {
  this->transport->End(0);
  EXPECT_EQ(this->server->SendZARNMessage(1, 2, "x", 1), TypeParam::kNotConnected);
  CAWMessageBlock block(8);
  block.Write("stack", 5);
  EXPECT_EQ(this->server->SendZARNMessage(1, 2, block), TypeParam::kNotConnected);
  EXPECT_EQ(block.GetLength(), 5U);
  EXPECT_EQ(block.GetNext(), nullptr);
}

TYPED_TEST(ServerChannelLife, PeersEndLeavesTheChannelClosedAndTellsTheOwnerNothing) {
  this->transport->Receive(Frame(1, 2, "whole") + "half");
  this->transport->End(ECONNRESET);
  EXPECT_TRUE(this->server->IsClosed());
  EXPECT_EQ(this->server->messages.size(), 1U);
  EXPECT_EQ(this->transport->GetReferences(), 1U);
}

TYPED_TEST(ServerChannelLife, UpcallsDoNothing) {
  this->log.clear();
  this->server->OnPeerDisconnect(1);
  this->server->OnConnected(0);
  this->server->OnConnectFailure(1);
  this->server->OnClose();
  this->server->OnRcvBufferOverFlow(1);
  EXPECT_TRUE(this->log.empty());
  EXPECT_FALSE(this->server->IsClosed());
  EXPECT_EQ(this->server->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TYPED_TEST(ServerChannelLife, DestructorDisconnectsAndLosesNothingThatWasAccepted) {
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 3);
  EXPECT_EQ(this->server->SendZARNMessage(1, 2, "goodbye", 7), AW_OK);
  this->server.reset();
  EXPECT_EQ(this->transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(this->transport->GetReferences(), 1U);
  EXPECT_EQ(this->transport->wire + this->transport->lingerData, Frame(1, 2, "goodbye"));
}

template <class Server>
struct SelfDeletingServer : Server {
  using Server::Server;
  void OnPeerDisconnect(long) override { delete this; }
};

TYPED_TEST(ServerChannelLife, OwnerThatDeletesTheChannelWhenThePeerLeavesIsAllowed) {
  auto other = this->NewTransport();
  new SelfDeletingServer<typename TypeParam::Channel>(other.Get());  // deletes itself
  other->Receive("half");
  other->End(0);
  EXPECT_EQ(other->GetReferences(), 1U);
}

}  // namespace
}  // namespace zarn::test
