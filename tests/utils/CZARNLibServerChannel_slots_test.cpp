// CZARNLibServerChannel_slots_test.cpp - the virtual slots of the server channel.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "VirtualSlot.h"
#include "zarn/utils/CZARNLibServerChannel.h"

namespace zarn::test {
namespace {

using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using ServerSlots = utils::CZARNLibServerChannel;
using Number = std::uint16_t;

TEST(VirtualSlots, ServerChannelOverridesTheStreamsHandlersInPlace) {
  EXPECT_EQ(VirtualSlot<std::size_t (ServerSlots::*)(const char*, std::size_t)>(
                &ServerSlots::HandleMessage),
            9);
  EXPECT_EQ(VirtualSlot<void (ServerSlots::*)(long)>(&ServerSlots::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (ServerSlots::*)(long)>(&ServerSlots::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (ServerSlots::*)(std::uint32_t)>(&ServerSlots::OnRcvBufferOverFlow),
            12);
}

// The two sends stand the other way round than in the client channel.
TEST(VirtualSlots, ServerChannelsOwnOperationsFollowTheStreams) {
  EXPECT_EQ(VirtualSlot<void (ServerSlots::*)()>(&ServerSlots::OnClose), 15);
  EXPECT_EQ(VirtualSlot<void (ServerSlots::*)(long)>(&ServerSlots::OnConnectFailure), 16);
  EXPECT_EQ(VirtualSlot<void (ServerSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &ServerSlots::OnZARNMessage),
            17);
  EXPECT_EQ(VirtualSlot<AWResult (ServerSlots::*)(Number, std::uint32_t, CAWMessageBlock&)>(
                &ServerSlots::SendZARNMessage),
            18);
  EXPECT_EQ(VirtualSlot<AWResult (ServerSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &ServerSlots::SendZARNMessage),
            19);
}

TEST(VirtualSlots, ServerChannelIsAStreamAndNothingElse) {
  EXPECT_TRUE((std::is_base_of_v<utils::CZARNIPCStreamBase, ServerSlots>));
  EXPECT_EQ(sizeof(ServerSlots), sizeof(utils::CZARNIPCStreamBase));
  EXPECT_TRUE(std::is_abstract_v<ServerSlots>);
}

}  // namespace
}  // namespace zarn::test
