// CZARNLibClientChannel_slots_test.cpp - the virtual slots of the client channel and of its timer
// sink.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "VirtualSlot.h"
#include "keelbase/CAWTimer.h"
#include "zarn/utils/CZARNLibClientChannel.h"

namespace zarn::test {
namespace {

using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using keelbase::CAWTimerWrapperID;
using keelbase::CAWTimerWrapperIDSink;
using ClientSlots = utils::CZARNLibClientChannel;
using Number = std::uint16_t;

TEST(VirtualSlots, TimerSinkDeclaresItsCallbackFirst) {
  EXPECT_EQ(VirtualSlot(&CAWTimerWrapperIDSink::OnTimer), 0);
  EXPECT_TRUE(std::has_virtual_destructor_v<CAWTimerWrapperIDSink>);
}

TEST(VirtualSlots, ClientChannelOverridesTheStreamsHandlersInPlace) {
  EXPECT_EQ(VirtualSlot<std::size_t (ClientSlots::*)(const char*, std::size_t)>(
                &ClientSlots::HandleMessage),
            9);
  EXPECT_EQ(VirtualSlot<void (ClientSlots::*)(long)>(&ClientSlots::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (ClientSlots::*)(long)>(&ClientSlots::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (ClientSlots::*)(std::uint32_t)>(&ClientSlots::OnRcvBufferOverFlow),
            12);
}

TEST(VirtualSlots, ClientChannelsOwnOperationsFollowTheStreams) {
  EXPECT_EQ(
      VirtualSlot<AWResult (ClientSlots::*)(Number, Number, Number, Number)>(&ClientSlots::Init),
      15);
  EXPECT_EQ(VirtualSlot<void (ClientSlots::*)()>(&ClientSlots::OnClose), 16);
  EXPECT_EQ(VirtualSlot<void (ClientSlots::*)(long)>(&ClientSlots::OnConnectFailure), 17);
  EXPECT_EQ(VirtualSlot<void (ClientSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &ClientSlots::OnZARNMessage),
            18);
  EXPECT_EQ(VirtualSlot<AWResult (ClientSlots::*)(Number, std::uint32_t, const char*, std::size_t)>(
                &ClientSlots::SendZARNMessage),
            19);
  EXPECT_EQ(VirtualSlot<AWResult (ClientSlots::*)(Number, std::uint32_t, CAWMessageBlock&)>(
                &ClientSlots::SendZARNMessage),
            20);
  EXPECT_EQ(VirtualSlot<void (ClientSlots::*)(CAWTimerWrapperID*)>(&ClientSlots::OnTimer), 21);
}

TEST(VirtualSlots, ClientChannelIsAStreamAndATimerSink) {
  EXPECT_TRUE((std::is_base_of_v<utils::CZARNIPCStreamBase, ClientSlots>));
  EXPECT_TRUE((std::is_base_of_v<CAWTimerWrapperIDSink, ClientSlots>));
  EXPECT_TRUE(std::is_abstract_v<ClientSlots>);
}

}  // namespace
}  // namespace zarn::test
