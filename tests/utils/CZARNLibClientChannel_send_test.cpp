// CZARNLibClientChannel_send_test.cpp - what only the client channel does when it sends: it tells a
// channel that is not connected apart. Over scripted connectors and transports.
#include <gtest/gtest.h>

#include <string>

#include "FakeIpc.h"
#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"
#include "zarn/utils/CZARNLibClientChannel.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;

class CZARNLibClientChannelSend : public ::testing::Test, public ClientFixture {};

TEST_F(CZARNLibClientChannelSend, MessageOnAnUnconnectedClientAnswers10001) {
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  client->Init(3, 4, 1, 2);
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
}

TEST_F(CZARNLibClientChannelSend, EmptyMessageOnAnUnconnectedClientAnswers10002) {
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_NOT_INITIALIZED);
  client->Init(3, 4, 1, 2);
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_NOT_INITIALIZED);
}

TEST_F(CZARNLibClientChannelSend, EmptyBlockOnAnUnconnectedClientAnswers10001) {
  CAWMessageBlock empty(8);
  EXPECT_EQ(client->SendZARNMessage(1, 2, empty), AW_ERROR_FAILURE);
}

TEST_F(CZARNLibClientChannelSend, BlockThatIsRefusedStaysUnreadAndTheCallers) {
  CAWMessageBlock block(8);
  block.Write("stack", 5);
  EXPECT_EQ(client->SendZARNMessage(1, 2, block), AW_ERROR_FAILURE);
  EXPECT_EQ(block.GetLength(), 5U);
  EXPECT_EQ(block.GetNext(), nullptr);
}

TEST_F(CZARNLibClientChannelSend, EmptyMessageIsNotGatedByConnectedOnlyByTheTransport) {
  // A transport that was attached by hand: the channel does not count as connected.
  Transport transport(new FakeTransport);
  keelbase::CAWAutoPtr<fipc::IAWIPCTransport> handle(transport.Get());
  client->SetTransportHandle(handle);
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_OK);
  EXPECT_EQ(transport->wire, Header(1, 12, 2, 0));
}

TEST_F(CZARNLibClientChannelSend, MessageAfterAnOverflowAnswers10001AndAnEmptyOne10002) {
  ConnectFully();
  client->OnRcvBufferOverFlow(1);
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_NOT_INITIALIZED);
}

TEST_F(CZARNLibClientChannelSend, OwnerMaySendFromInsideItsOnConnected) {
  struct Greeting : RecordingClient {
    int OnConnected(long reason) override {
      const int result = RecordingClient::OnConnected(reason);
      EXPECT_EQ(SendZARNMessage(1, 2, "hello", 5), AW_OK);
      return result;
    }
  };
  Greeting greeting;
  greeting.Init(3, 4, 1, 2);
  auto transport = CompleteLast();
  EXPECT_EQ(transport->wire, Frame(1, 2, "hello"));
}

}  // namespace
}  // namespace zarn::test
