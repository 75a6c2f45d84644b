// CShmZARNLibServerChannel_test.cpp - what only the shared-memory server channel does. The rules of
// all server channels are checked in ServerChannel_test.cpp. Over a scripted transport.
#include "zarn/utils/CShmZARNLibServerChannel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NetworkThread.h"
#include "RecordingChannel.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;

struct NotingServer : ShmServerWorld::Channel {
  using Recording::Recording;
  std::vector<std::string> upcalls;
  void OnPeerDisconnect(long reason) override {
    upcalls.push_back("OnPeerDisconnect(" + std::to_string(reason) + ")");
  }
  void OnClose() override { upcalls.push_back("OnClose"); }
};

class CShmZARNLibServerChannelRules : public ::testing::Test, public ServerFixture<ShmServerWorld> {
 protected:
  Transport other = NewTransport();
  NotingServer noting{other.Get()};
};

TEST_F(CShmZARNLibServerChannelRules, CloseInsideAMessageIsAnsweredByOnClose) {
  noting.onMessage = [&] { noting.Close(5); };
  other->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(noting.upcalls, std::vector<std::string>{"OnClose"});
  EXPECT_EQ(noting.messages.size(), 1U);
  EXPECT_TRUE(noting.IsClosed());
  EXPECT_EQ(other->disconnects, std::vector<long>{5});
}

TEST_F(CShmZARNLibServerChannelRules, PeersEndIsAnsweredByOnPeerDisconnect) {
  other->End(7);
  EXPECT_EQ(noting.upcalls, std::vector<std::string>{"OnPeerDisconnect(7)"});
}

TEST_F(CShmZARNLibServerChannelRules, OwnerMayDeleteTheChannelWhenAMessageHasClosedIt) {
  struct SelfDeleting : ShmServerWorld::Channel {
    using Recording::Recording;
    void OnClose() override { delete this; }
  };
  Transport third = NewTransport();
  auto* channel = new SelfDeleting(third.Get());  // deletes itself
  channel->onMessage = [channel] { channel->Close(0); };
  third->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(third->GetReferences(), 1U);
}

TEST_F(CShmZARNLibServerChannelRules, MessageWithoutATransportAnswers10001AlsoWhenItIsEmpty) {
  ShmServerWorld::Channel channel(nullptr);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, "x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_FAILURE);
  EXPECT_EQ(channel.GetSendQueueLength(), 0U);
}

}  // namespace
}  // namespace zarn::test
