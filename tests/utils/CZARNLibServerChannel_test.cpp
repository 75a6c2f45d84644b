// CZARNLibServerChannel_test.cpp - what only the local-IPC server channel does. The rules of all
// server channels are checked in ServerChannel_test.cpp. Over a scripted transport.
#include "zarn/utils/CZARNLibServerChannel.h"

#include <gtest/gtest.h>

#include <vector>

#include "NetworkThread.h"
#include "RecordingChannel.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_NOT_INITIALIZED;

class CZARNLibServerChannelRules : public ::testing::Test, public ServerFixture<IpcServerWorld> {};

TEST_F(CZARNLibServerChannelRules, MessageWithoutATransportAnswers10002AlsoWhenItIsEmpty) {
  IpcServerWorld::Channel channel(nullptr);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, "x", 1), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(channel.SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_NOT_INITIALIZED);
}

TEST_F(CZARNLibServerChannelRules, CloseInsideAMessageIsAnsweredByOnPeerDisconnect) {
  struct Noting : IpcServerWorld::Channel {
    using Recording::Recording;
    std::vector<long> peerDisconnects;
    void OnPeerDisconnect(long reason) override { peerDisconnects.push_back(reason); }
  };
  Transport other = NewTransport();
  Noting noting(other.Get());
  noting.onMessage = [&] { noting.Close(5); };
  other->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(noting.peerDisconnects, std::vector<long>{0});
  EXPECT_EQ(noting.messages.size(), 1U);
}

}  // namespace
}  // namespace zarn::test
