// CZARNIPCStreamBase_slots_test.cpp - the virtual slots of the stream and of the sinks that it
// implements.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "RecordingStream.h"
#include "VirtualSlot.h"
#include "fipc/CAWIPCManager.h"
#include "fipc/CAWIPCTransport.h"
#include "zarn/utils/CZARNIPCStreamBase.h"

namespace zarn::test {
namespace {

using fipc::CAWIPCTransportParameter;
using fipc::IAWIPCAcceptorConnectorId;
using fipc::IAWIPCAcceptorConnectorSink;
using fipc::IAWIPCTransport;
using fipc::IAWIPCTransportSink;
using keelbase::AWResult;
using keelbase::CAWIPCAddr;
using keelbase::CAWMessageBlock;
using utils::CZARNIPCStreamBase;
using Stream = CZARNIPCStreamBase;

TEST(VirtualSlots, TransportSinkDeclaresItsCallbacksFirstAndItsDestructorLast) {
  EXPECT_EQ(VirtualSlot(&IAWIPCTransportSink::OnReceive), 0);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransportSink::OnSend), 1);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransportSink::OnDisconnect), 2);
  EXPECT_TRUE(std::has_virtual_destructor_v<IAWIPCTransportSink>);
}

TEST(VirtualSlots, ConnectSinkDeclaresItsCallbackFirst) {
  EXPECT_EQ(VirtualSlot(&IAWIPCAcceptorConnectorSink::OnIPCConnectIndication), 0);
  EXPECT_TRUE(std::has_virtual_destructor_v<IAWIPCAcceptorConnectorSink>);
}

TEST(VirtualSlots, StreamStartsWithTheTransportSinksSlots) {
  EXPECT_EQ(
      VirtualSlot<void (Stream::*)(CAWMessageBlock&, IAWIPCTransport*, CAWIPCTransportParameter*)>(
          &Stream::OnReceive),
      0);
  EXPECT_EQ(
      VirtualSlot<void (Stream::*)(IAWIPCTransport*, CAWIPCTransportParameter*)>(&Stream::OnSend),
      1);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long, IAWIPCTransport*)>(&Stream::OnDisconnect), 2);
}

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, StreamsOwnOperationsFollowTheDestructorPair) {
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long, IAWIPCTransport*, IAWIPCAcceptorConnectorId*)>(
                &Stream::OnIPCConnectIndication),
            5);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(const CAWIPCAddr&, CAWIPCAddr*)>(&Stream::Connect), 6);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(CAWMessageBlock&)>(&Stream::SendMsg), 7);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(const char*, std::size_t)>(&Stream::SendMsg), 8);
  EXPECT_EQ(VirtualSlot<std::size_t (Stream::*)(const char*, std::size_t)>(&Stream::HandleMessage),
            9);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long)>(&Stream::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (Stream::*)(long)>(&Stream::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(std::uint32_t)>(&Stream::OnRcvBufferOverFlow), 12);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(keelbase::CAWAutoPtr<IAWIPCTransport>&)>(
                &Stream::SetTransportHandle),
            13);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(long)>(&Stream::Close), 14);
}

TEST(VirtualSlots, StreamsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&Stream::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Stream::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Stream::IsClosed), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetPeerAddr), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetLocalAddr), -1);
  EXPECT_EQ(VirtualSlot(&Stream::IsSendOverBuffer), -1);
  EXPECT_EQ(VirtualSlot(&Stream::IsRcvOverBuffer), -1);
  EXPECT_EQ(VirtualSlot(&Stream::OnReceiveDirect), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetSendQueueLength), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetCounters), -1);
}

TEST(VirtualSlots, TransportSinkIsTheStreamsFirstBaseAndConnectSinkItsSecond) {
  EXPECT_TRUE((std::is_base_of_v<IAWIPCTransportSink, Stream>));
  EXPECT_TRUE((std::is_base_of_v<IAWIPCAcceptorConnectorSink, Stream>));
  EXPECT_TRUE(std::is_abstract_v<Stream>);
  RecordingStream recording;
  Stream* stream = &recording;
  auto* start = reinterpret_cast<char*>(stream);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWIPCTransportSink*>(stream)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWIPCAcceptorConnectorSink*>(stream)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
