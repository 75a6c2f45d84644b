// CShmZARNLibClientChannel_slots_test.cpp - the virtual slots of the shared-memory client channel.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "VirtualSlot.h"
#include "keelbase/CAWTimer.h"
#include "zarn/utils/CShmZARNLibClientChannel.h"

namespace zarn::test {
namespace {

using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using keelbase::CAWTimerWrapperID;
using keelbase::CAWTimerWrapperIDSink;
using Channel = utils::CShmZARNLibClientChannel;

TEST(VirtualSlots, ShmClientChannelOverridesTheStreamsHandlersInPlace) {
  EXPECT_EQ(
      VirtualSlot<std::size_t (Channel::*)(const char*, std::size_t)>(&Channel::HandleMessage), 9);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(long)>(&Channel::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (Channel::*)(long)>(&Channel::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (Channel::*)()>(&Channel::OnClose), 12);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(long)>(&Channel::OnConnectFailure), 13);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(std::uint32_t)>(&Channel::OnRcvBufferOverFlow), 14);
}

TEST(VirtualSlots, ShmClientChannelsOwnOperationsFollowTheStreams) {
  using Number = std::uint16_t;
  EXPECT_EQ(VirtualSlot<AWResult (Channel::*)(Number, Number, Number, Number)>(&Channel::Init), 17);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &Channel::OnZARNMessage),
            18);
  EXPECT_EQ(VirtualSlot<AWResult (Channel::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &Channel::SendZARNMessage),
            19);
  EXPECT_EQ(VirtualSlot<AWResult (Channel::*)(Number, std::uint32_t, CAWMessageBlock&)>(
                &Channel::SendZARNMessage),
            20);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(CAWTimerWrapperID*)>(&Channel::OnTimer), 21);
}

TEST(VirtualSlots, ShmClientChannelIsAStreamAndATimerSink) {
  EXPECT_TRUE((std::is_base_of_v<utils::CZARNShmIPCStreamBase, Channel>));
  EXPECT_TRUE((std::is_base_of_v<CAWTimerWrapperIDSink, Channel>));
  EXPECT_TRUE(std::is_abstract_v<Channel>);
}

}  // namespace
}  // namespace zarn::test
