// ClientChannel_send_test.cpp - what every client channel does when it sends: it tells a channel
// that is not connected apart. Over scripted connectors and transports.
#include <gtest/gtest.h>

#include <string>

#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;

template <class World>
class ClientChannelSend : public ::testing::Test, public ClientFixture<World> {};

TYPED_TEST_SUITE(ClientChannelSend, ClientWorlds, WorldNames);

TYPED_TEST(ClientChannelSend, MessageOnAnUnconnectedClientAnswers10001) {
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  this->client->Init(3, 4, 1, 2);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
}

TYPED_TEST(ClientChannelSend, EmptyBlockOnAnUnconnectedClientAnswers10001) {
  CAWMessageBlock empty(8);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, empty), AW_ERROR_FAILURE);
}

TYPED_TEST(ClientChannelSend, BlockThatIsRefusedStaysUnreadAndTheCallers) {
  CAWMessageBlock block(8);
  block.Write("stack", 5);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, block), AW_ERROR_FAILURE);
  EXPECT_EQ(block.GetLength(), 5U);
  EXPECT_EQ(block.GetNext(), nullptr);
}

TYPED_TEST(ClientChannelSend, EmptyMessageIsNotGatedByConnectedOnlyByTheTransport) {
  // A transport that was attached by hand: the channel does not count as connected.
  auto transport = this->NewTransport();
  typename TestFixture::Handle handle(transport.Get());
  this->client->SetTransportHandle(handle);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, nullptr, 0), AW_OK);
  EXPECT_EQ(transport->wire, Header(1, 12, 2, 0));
}

TYPED_TEST(ClientChannelSend, EmptyMessageAfterAnOverflowIsRefusedByTheStream) {
  this->ConnectFully();
  this->client->OnRcvBufferOverFlow(1);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(this->client->SendZARNMessage(1, 2, nullptr, 0), TypeParam::kNotConnected);
}

TYPED_TEST(ClientChannelSend, OwnerMaySendFromInsideItsOnConnected) {
  struct Greeting : TypeParam::Channel {
    int OnConnected(long reason) override {
      const int result = TypeParam::Channel::OnConnected(reason);
      EXPECT_EQ(this->SendZARNMessage(1, 2, "hello", 5), AW_OK);
      return result;
    }
  };
  Greeting greeting;
  greeting.Init(3, 4, 1, 2);
  auto transport = this->CompleteLast();
  EXPECT_EQ(transport->wire, Frame(1, 2, "hello"));
}

}  // namespace
}  // namespace zarn::test
