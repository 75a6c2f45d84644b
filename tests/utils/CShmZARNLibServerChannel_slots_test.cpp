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
using ShmServerSlots = utils::CShmZARNLibServerChannel;
using Number = std::uint16_t;

TEST(VirtualSlots, ShmServerChannelOverridesTheStreamsHandlersInPlace) {
  EXPECT_EQ(VirtualSlot<std::size_t (ShmServerSlots::*)(const char*, std::size_t)>(
                &ShmServerSlots::HandleMessage),
            9);
  EXPECT_EQ(VirtualSlot<void (ShmServerSlots::*)(long)>(&ShmServerSlots::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (ShmServerSlots::*)(long)>(&ShmServerSlots::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (ShmServerSlots::*)()>(&ShmServerSlots::OnClose), 12);
  EXPECT_EQ(VirtualSlot<void (ShmServerSlots::*)(long)>(&ShmServerSlots::OnConnectFailure), 13);
  EXPECT_EQ(
      VirtualSlot<void (ShmServerSlots::*)(std::uint32_t)>(&ShmServerSlots::OnRcvBufferOverFlow),
      14);
}

// The two sends stand the other way round than in the client channel.
TEST(VirtualSlots, ShmServerChannelsOwnOperationsFollowTheStreams) {
  EXPECT_EQ(VirtualSlot<void (ShmServerSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &ShmServerSlots::OnZARNMessage),
            17);
  EXPECT_EQ(VirtualSlot<AWResult (ShmServerSlots::*)(Number, std::uint32_t, CAWMessageBlock&)>(
                &ShmServerSlots::SendZARNMessage),
            18);
  EXPECT_EQ(
      VirtualSlot<AWResult (ShmServerSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
          &ShmServerSlots::SendZARNMessage),
      19);
}

TEST(VirtualSlots, ShmServerChannelIsAStreamAndNothingElse) {
  EXPECT_TRUE((std::is_base_of_v<utils::CZARNShmIPCStreamBase, ShmServerSlots>));
  EXPECT_EQ(sizeof(ShmServerSlots), sizeof(utils::CZARNShmIPCStreamBase));
  EXPECT_TRUE(std::is_abstract_v<ShmServerSlots>);
}

}  // namespace
}  // namespace zarn::test
