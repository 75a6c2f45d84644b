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
using IpcStream = CZARNIPCStreamBase;

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
  EXPECT_EQ(VirtualSlot<void (IpcStream::*)(CAWMessageBlock&, IAWIPCTransport*,
                                            CAWIPCTransportParameter*)>(&IpcStream::OnReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (IpcStream::*)(IAWIPCTransport*, CAWIPCTransportParameter*)>(
                &IpcStream::OnSend),
            1);
  EXPECT_EQ(VirtualSlot<void (IpcStream::*)(long, IAWIPCTransport*)>(&IpcStream::OnDisconnect), 2);
}

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, StreamsOwnOperationsFollowTheDestructorPair) {
  EXPECT_EQ(VirtualSlot<void (IpcStream::*)(long, IAWIPCTransport*, IAWIPCAcceptorConnectorId*)>(
                &IpcStream::OnIPCConnectIndication),
            5);
  EXPECT_EQ(
      VirtualSlot<AWResult (IpcStream::*)(const CAWIPCAddr&, CAWIPCAddr*)>(&IpcStream::Connect), 6);
  EXPECT_EQ(VirtualSlot<AWResult (IpcStream::*)(CAWMessageBlock&)>(&IpcStream::SendMsg), 7);
  EXPECT_EQ(VirtualSlot<AWResult (IpcStream::*)(const char*, std::size_t)>(&IpcStream::SendMsg), 8);
  EXPECT_EQ(
      VirtualSlot<std::size_t (IpcStream::*)(const char*, std::size_t)>(&IpcStream::HandleMessage),
      9);
  EXPECT_EQ(VirtualSlot<void (IpcStream::*)(long)>(&IpcStream::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (IpcStream::*)(long)>(&IpcStream::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (IpcStream::*)(std::uint32_t)>(&IpcStream::OnRcvBufferOverFlow), 12);
  EXPECT_EQ(VirtualSlot<AWResult (IpcStream::*)(keelbase::CAWAutoPtr<IAWIPCTransport>&)>(
                &IpcStream::SetTransportHandle),
            13);
  EXPECT_EQ(VirtualSlot<AWResult (IpcStream::*)(long)>(&IpcStream::Close), 14);
}

TEST(VirtualSlots, StreamsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&IpcStream::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::IsClosed), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::GetPeerAddr), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::GetLocalAddr), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::IsSendOverBuffer), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::IsRcvOverBuffer), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::OnReceiveDirect), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::GetSendQueueLength), -1);
  EXPECT_EQ(VirtualSlot(&IpcStream::GetCounters), -1);
}

TEST(VirtualSlots, TransportSinkIsTheStreamsFirstBaseAndConnectSinkItsSecond) {
  EXPECT_TRUE((std::is_base_of_v<IAWIPCTransportSink, IpcStream>));
  EXPECT_TRUE((std::is_base_of_v<IAWIPCAcceptorConnectorSink, IpcStream>));
  EXPECT_TRUE(std::is_abstract_v<IpcStream>);
  RecordingStream recording;
  IpcStream* stream = &recording;
  auto* start = reinterpret_cast<char*>(stream);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWIPCTransportSink*>(stream)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWIPCAcceptorConnectorSink*>(stream)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
