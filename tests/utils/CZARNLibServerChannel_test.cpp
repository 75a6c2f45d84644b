// CZARNLibServerChannel_test.cpp - the life of a server channel, over a scripted transport. What it
// has in common with the client channel is checked in ChannelMessages_test.cpp.
#include "zarn/utils/CZARNLibServerChannel.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "FakeIpc.h"
#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;

class CZARNLibServerChannelLife : public ::testing::Test, public ServerFixture {};

TEST_F(CZARNLibServerChannelLife, ConstructorOpensTheTransportAndHoldsOneReference) {
  EXPECT_EQ(transport->GetSink(), static_cast<fipc::IAWIPCTransportSink*>(server.get()));
  EXPECT_EQ(transport->GetReferences(), 2U);
  EXPECT_FALSE(server->IsClosed());
}

TEST_F(CZARNLibServerChannelLife, AddressesAreKnownAfterConstruction) {
  Transport named(new FakeTransport);
  named->peerPath = "/ipc/3_4";
  named->localPath = "/ipc/1_2";
  RecordingServer channel(named.Get());
  EXPECT_EQ(channel.GetPeerAddr().GetPath(), "/ipc/3_4");
  EXPECT_EQ(channel.GetLocalAddr().GetPath(), "/ipc/1_2");
}

TEST_F(CZARNLibServerChannelLife, ChannelAroundNoTransportAnswers10002) {
  RecordingServer channel(nullptr);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, "x", 1), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_NOT_INITIALIZED);
  EXPECT_FALSE(channel.IsClosed());
}

TEST_F(CZARNLibServerChannelLife, SizeIsCheckedBeforeTheTransport) {
  RecordingServer channel(nullptr);
  const std::string tooLarge(65524, 'x');
  EXPECT_EQ(channel.SendZARNMessage(1, 2, tooLarge.data(), tooLarge.size()), AW_ERROR_FAILURE);
}

TEST_F(CZARNLibServerChannelLife, ConstructorIgnoresATransportThatDoesNotOpen) {
  Transport broken(new FakeTransport);
  broken->openResult = AW_ERROR_FAILURE;
  {
    RecordingServer channel(broken.Get());
    EXPECT_EQ(broken->GetReferences(), 2U);
  }
  EXPECT_EQ(broken->GetReferences(), 1U);
}

TEST_F(CZARNLibServerChannelLife, MessageAfterThePeerLeftAnswers10002) {
  transport->End(0);
  EXPECT_EQ(server->SendZARNMessage(1, 2, "x", 1), AW_ERROR_NOT_INITIALIZED);
  CAWMessageBlock block(8);
  block.Write("stack", 5);
  EXPECT_EQ(server->SendZARNMessage(1, 2, block), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(block.GetLength(), 5U);
  EXPECT_EQ(block.GetNext(), nullptr);
}

TEST_F(CZARNLibServerChannelLife, PeersEndLeavesTheChannelClosedAndTellsTheOwnerNothing) {
  transport->Receive(Frame(1, 2, "whole") + "half");
  transport->End(ECONNRESET);
  EXPECT_TRUE(server->IsClosed());
  EXPECT_EQ(server->messages.size(), 1U);
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TEST_F(CZARNLibServerChannelLife, UpcallsDoNothing) {
  log.clear();
  server->OnPeerDisconnect(1);
  server->OnConnected(0);
  server->OnConnectFailure(1);
  server->OnClose();
  server->OnRcvBufferOverFlow(1);
  EXPECT_TRUE(log.empty());
  EXPECT_FALSE(server->IsClosed());
  EXPECT_EQ(server->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TEST_F(CZARNLibServerChannelLife, DestructorDisconnectsAndLosesNothingThatWasAccepted) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 3);
  EXPECT_EQ(server->SendZARNMessage(1, 2, "goodbye", 7), AW_OK);
  server.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(transport->wire + transport->lingerData, Frame(1, 2, "goodbye"));
}

TEST_F(CZARNLibServerChannelLife, OwnerThatDeletesTheChannelWhenThePeerLeavesIsAllowed) {
  struct SelfDeleting : RecordingServer {
    using RecordingServer::RecordingServer;
    void OnPeerDisconnect(long) override { delete this; }
  };
  Transport other(new FakeTransport);
  new SelfDeleting(other.Get());  // deletes itself
  other->Receive("half");
  other->End(0);
  EXPECT_EQ(other->GetReferences(), 1U);
}

}  // namespace
}  // namespace zarn::test
