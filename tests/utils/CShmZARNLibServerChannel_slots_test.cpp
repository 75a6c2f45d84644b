// CShmZARNLibServerChannel_slots_test.cpp - the virtual slots of the shared-memory server channel.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "VirtualSlot.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"

namespace zarn::test {
namespace {

using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using Channel = utils::CShmZARNLibServerChannel;
using Number = std::uint16_t;

TEST(VirtualSlots, ShmServerChannelOverridesTheStreamsHandlersInPlace) {
  EXPECT_EQ(
      VirtualSlot<std::size_t (Channel::*)(const char*, std::size_t)>(&Channel::HandleMessage), 9);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(long)>(&Channel::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (Channel::*)(long)>(&Channel::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (Channel::*)()>(&Channel::OnClose), 12);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(long)>(&Channel::OnConnectFailure), 13);
  EXPECT_EQ(VirtualSlot<void (Channel::*)(std::uint32_t)>(&Channel::OnRcvBufferOverFlow), 14);
}

// The two sends stand the other way round than in the client channel.
TEST(VirtualSlots, ShmServerChannelsOwnOperationsFollowTheStreams) {
  EXPECT_EQ(VirtualSlot<void (Channel::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &Channel::OnZARNMessage),
            17);
  EXPECT_EQ(VirtualSlot<AWResult (Channel::*)(Number, std::uint32_t, CAWMessageBlock&)>(
                &Channel::SendZARNMessage),
            18);
  EXPECT_EQ(VirtualSlot<AWResult (Channel::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &Channel::SendZARNMessage),
            19);
}

TEST(VirtualSlots, ShmServerChannelIsAStreamAndNothingElse) {
  EXPECT_TRUE((std::is_base_of_v<utils::CZARNShmIPCStreamBase, Channel>));
  EXPECT_EQ(sizeof(Channel), sizeof(utils::CZARNShmIPCStreamBase));
  EXPECT_TRUE(std::is_abstract_v<Channel>);
}

}  // namespace
}  // namespace zarn::test
