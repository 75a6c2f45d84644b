// CZARNShmIPCStreamBase_slots_test.cpp - the virtual slots of the shared-memory stream and of the
// sinks that it implements.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "RecordingStream.h"
#include "VirtualSlot.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "zarn/utils/CZARNShmIPCStreamBase.h"

namespace zarn::test {
namespace {

using fshmipc::CAWShmIPCAddr;
using fshmipc::CAWShmIPCTransportParameter;
using fshmipc::IAWShmIPCAcceptorConnectorId;
using fshmipc::IAWShmIPCAcceptorConnectorSink;
using fshmipc::IAWShmIPCTransport;
using fshmipc::IAWShmIPCTransportSink;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using utils::CZARNShmIPCStreamBase;
using ShmStream = CZARNShmIPCStreamBase;

TEST(VirtualSlots, ShmTransportSinkDeclaresItsCallbacksFirstAndItsDestructorLast) {
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransportSink::OnReceive), 0);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransportSink::OnSend), 1);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransportSink::OnDisconnect), 2);
  EXPECT_TRUE(std::has_virtual_destructor_v<IAWShmIPCTransportSink>);
}

TEST(VirtualSlots, ShmConnectSinkDeclaresItsCallbackFirst) {
  EXPECT_EQ(VirtualSlot(&IAWShmIPCAcceptorConnectorSink::OnShmIPCConnectIndication), 0);
  EXPECT_TRUE(std::has_virtual_destructor_v<IAWShmIPCAcceptorConnectorSink>);
}

TEST(VirtualSlots, ShmStreamStartsWithTheTransportSinksSlots) {
  EXPECT_EQ(VirtualSlot<void (ShmStream::*)(CAWMessageBlock&, IAWShmIPCTransport*,
                                            CAWShmIPCTransportParameter*)>(&ShmStream::OnReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (ShmStream::*)(IAWShmIPCTransport*, CAWShmIPCTransportParameter*)>(
                &ShmStream::OnSend),
            1);
  EXPECT_EQ(VirtualSlot<void (ShmStream::*)(long, IAWShmIPCTransport*)>(&ShmStream::OnDisconnect),
            2);
}

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, ShmStreamsOwnOperationsFollowTheDestructorPair) {
  EXPECT_EQ(
      VirtualSlot<void (ShmStream::*)(long, IAWShmIPCTransport*, IAWShmIPCAcceptorConnectorId*)>(
          &ShmStream::OnShmIPCConnectIndication),
      5);
  EXPECT_EQ(VirtualSlot<AWResult (ShmStream::*)(const CAWShmIPCAddr&, CAWShmIPCAddr*)>(
                &ShmStream::Connect),
            6);
  EXPECT_EQ(VirtualSlot<AWResult (ShmStream::*)(CAWMessageBlock&)>(&ShmStream::SendMsg), 7);
  EXPECT_EQ(VirtualSlot<AWResult (ShmStream::*)(const char*, std::size_t)>(&ShmStream::SendMsg), 8);
  EXPECT_EQ(
      VirtualSlot<std::size_t (ShmStream::*)(const char*, std::size_t)>(&ShmStream::HandleMessage),
      9);
  EXPECT_EQ(VirtualSlot<void (ShmStream::*)(long)>(&ShmStream::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (ShmStream::*)(long)>(&ShmStream::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (ShmStream::*)()>(&ShmStream::OnClose), 12);
  EXPECT_EQ(VirtualSlot<void (ShmStream::*)(long)>(&ShmStream::OnConnectFailure), 13);
  EXPECT_EQ(VirtualSlot<void (ShmStream::*)(std::uint32_t)>(&ShmStream::OnRcvBufferOverFlow), 14);
  EXPECT_EQ(VirtualSlot<AWResult (ShmStream::*)(keelbase::CAWAutoPtr<IAWShmIPCTransport>&)>(
                &ShmStream::SetTransportHandle),
            15);
  EXPECT_EQ(VirtualSlot<AWResult (ShmStream::*)(long)>(&ShmStream::Close), 16);
}

TEST(VirtualSlots, ShmStreamsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&ShmStream::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&ShmStream::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&ShmStream::IsClosed), -1);
  EXPECT_EQ(VirtualSlot(&ShmStream::GetPeerAddr), -1);
  EXPECT_EQ(VirtualSlot(&ShmStream::GetLocalAddr), -1);
  EXPECT_EQ(VirtualSlot(&ShmStream::GetSendQueueLength), -1);
  EXPECT_EQ(VirtualSlot(&ShmStream::GetCounters), -1);
}

template <class Any>
concept WatchesItsBuffers = requires(Any& stream) {
  stream.IsSendOverBuffer();
}
|| requires(Any& stream) { stream.IsRcvOverBuffer(); };
template <class Any>
concept TakesBlocksDirectly = requires(Any& stream, CAWMessageBlock& block) {
  stream.OnReceiveDirect(block);
};

TEST(VirtualSlots, ShmStreamHasNoOverBufferFlagsAndTakesNoBlocksDirectly) {
  EXPECT_TRUE(WatchesItsBuffers<RecordingStream>);
  EXPECT_TRUE(TakesBlocksDirectly<RecordingStream>);
  EXPECT_FALSE(WatchesItsBuffers<ShmStream>);
  EXPECT_FALSE(TakesBlocksDirectly<ShmStream>);
}

TEST(VirtualSlots, ShmTransportSinkIsTheStreamsFirstBaseAndConnectSinkItsSecond) {
  EXPECT_TRUE((std::is_base_of_v<IAWShmIPCTransportSink, ShmStream>));
  EXPECT_TRUE((std::is_base_of_v<IAWShmIPCAcceptorConnectorSink, ShmStream>));
  EXPECT_TRUE(std::is_abstract_v<ShmStream>);
  RecordingShmStream recording;
  ShmStream* stream = &recording;
  auto* start = reinterpret_cast<char*>(stream);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWShmIPCTransportSink*>(stream)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWShmIPCAcceptorConnectorSink*>(stream)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
