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
using Stream = CZARNShmIPCStreamBase;

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
  EXPECT_EQ(VirtualSlot<void (Stream::*)(CAWMessageBlock&, IAWShmIPCTransport*,
                                         CAWShmIPCTransportParameter*)>(&Stream::OnReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(IAWShmIPCTransport*, CAWShmIPCTransportParameter*)>(
                &Stream::OnSend),
            1);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long, IAWShmIPCTransport*)>(&Stream::OnDisconnect), 2);
}

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, ShmStreamsOwnOperationsFollowTheDestructorPair) {
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long, IAWShmIPCTransport*, IAWShmIPCAcceptorConnectorId*)>(
                &Stream::OnShmIPCConnectIndication),
            5);
  EXPECT_EQ(
      VirtualSlot<AWResult (Stream::*)(const CAWShmIPCAddr&, CAWShmIPCAddr*)>(&Stream::Connect), 6);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(CAWMessageBlock&)>(&Stream::SendMsg), 7);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(const char*, std::size_t)>(&Stream::SendMsg), 8);
  EXPECT_EQ(VirtualSlot<std::size_t (Stream::*)(const char*, std::size_t)>(&Stream::HandleMessage),
            9);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long)>(&Stream::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot<int (Stream::*)(long)>(&Stream::OnConnected), 11);
  EXPECT_EQ(VirtualSlot<void (Stream::*)()>(&Stream::OnClose), 12);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long)>(&Stream::OnConnectFailure), 13);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(std::uint32_t)>(&Stream::OnRcvBufferOverFlow), 14);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(keelbase::CAWAutoPtr<IAWShmIPCTransport>&)>(
                &Stream::SetTransportHandle),
            15);
  EXPECT_EQ(VirtualSlot<AWResult (Stream::*)(long)>(&Stream::Close), 16);
}

TEST(VirtualSlots, ShmStreamsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&Stream::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Stream::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Stream::IsClosed), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetPeerAddr), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetLocalAddr), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetSendQueueLength), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetCounters), -1);
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
  EXPECT_FALSE(WatchesItsBuffers<Stream>);
  EXPECT_FALSE(TakesBlocksDirectly<Stream>);
}

TEST(VirtualSlots, ShmTransportSinkIsTheStreamsFirstBaseAndConnectSinkItsSecond) {
  EXPECT_TRUE((std::is_base_of_v<IAWShmIPCTransportSink, Stream>));
  EXPECT_TRUE((std::is_base_of_v<IAWShmIPCAcceptorConnectorSink, Stream>));
  EXPECT_TRUE(std::is_abstract_v<Stream>);
  RecordingShmStream recording;
  Stream* stream = &recording;
  auto* start = reinterpret_cast<char*>(stream);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWShmIPCTransportSink*>(stream)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWShmIPCAcceptorConnectorSink*>(stream)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
