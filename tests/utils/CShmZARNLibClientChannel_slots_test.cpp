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
using ShmClientSlots = utils::CShmZARNLibClientChannel;
using Number = std::uint16_t;

TEST(VirtualSlots, ShmClientChannelOverridesTheStreamsHandlersInPlace) {
  EXPECT_EQ(VirtualSlot<std::size_t (ShmClientSlots::*)(const char*, std::size_t)>(
                &ShmClientSlots::HandleMessage),
            9);
  EXPECT_EQ(VirtualSlot<void (ShmClientSlots::*)(long)>(&ShmClientSlots::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (ShmClientSlots::*)(long)>(&ShmClientSlots::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (ShmClientSlots::*)()>(&ShmClientSlots::OnClose), 12);
  EXPECT_EQ(VirtualSlot<void (ShmClientSlots::*)(long)>(&ShmClientSlots::OnConnectFailure), 13);
  EXPECT_EQ(
      VirtualSlot<void (ShmClientSlots::*)(std::uint32_t)>(&ShmClientSlots::OnRcvBufferOverFlow),
      14);
}

TEST(VirtualSlots, ShmClientChannelsOwnOperationsFollowTheStreams) {
  EXPECT_EQ(VirtualSlot<AWResult (ShmClientSlots::*)(Number, Number, Number, Number)>(
                &ShmClientSlots::Init),
            17);
  EXPECT_EQ(VirtualSlot<void (ShmClientSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &ShmClientSlots::OnZARNMessage),
            18);
  EXPECT_EQ(
      VirtualSlot<AWResult (ShmClientSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
          &ShmClientSlots::SendZARNMessage),
      19);
  EXPECT_EQ(VirtualSlot<AWResult (ShmClientSlots::*)(Number, std::uint32_t, CAWMessageBlock&)>(
                &ShmClientSlots::SendZARNMessage),
            20);
  EXPECT_EQ(VirtualSlot<void (ShmClientSlots::*)(CAWTimerWrapperID*)>(&ShmClientSlots::OnTimer),
            21);
}

TEST(VirtualSlots, ShmClientChannelIsAStreamAndATimerSink) {
  EXPECT_TRUE((std::is_base_of_v<utils::CZARNShmIPCStreamBase, ShmClientSlots>));
  EXPECT_TRUE((std::is_base_of_v<CAWTimerWrapperIDSink, ShmClientSlots>));
  EXPECT_TRUE(std::is_abstract_v<ShmClientSlots>);
}

}  // namespace
}  // namespace zarn::test
