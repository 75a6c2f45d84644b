// CZARNTCPSessionBase_test.cpp - what only the TCP session does. The rules of all streams are
// checked in Stream*_test.cpp. Over scripted transports.
#include "zarn/utils/CZARNTCPSessionBase.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <type_traits>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingStream.h"
#include "StoredSize.h"
#include "TraceLines.h"
#include "VirtualSlot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNTCPSessionBaseRules : public ::testing::Test, public StreamFixture<OverTcp> {
 protected:
  // A connection with "queued" in the send queue and "half" received.
  Transport ConnectWithFullBuffers() {
    Transport transport = ConnectFully();
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
    Send("queued");
    transport->Receive("half");
    return transport;
  }
  void ExpectEmptyBuffers() {
    EXPECT_EQ(stream->GetSendQueueLength(), 0U);
    auto fresh = Attach();
    EXPECT_EQ(Send("new"), AW_OK);
    EXPECT_EQ(fresh->wire, "new");
    fresh->Receive("whole;");
    EXPECT_EQ(stream->frames, Strings{"whole"});
  }
};

// --- accessors ---

TEST_F(CZARNTCPSessionBaseRules, ReceiveBufferSizeIsStoredUpTo32768) {
  const auto set = [&](std::uint32_t size) { stream->SetRcvBufferSize(size); };
  const StoredSize stored(*stream, set, 32768);
  for (const std::uint32_t size : {100000U, 32769U, 0xFFFFFFFFU, 32768U}) {
    set(0);
    EXPECT_EQ(stored.Get(), 0U);
    set(size);
    EXPECT_EQ(stored.Get(), 32768U) << size;
  }
}

TEST_F(CZARNTCPSessionBaseRules, SendBufferSizeIsStoredAsItIs) {
  const auto set = [&](std::uint32_t size) { stream->SetSendBufferSize(size); };
  const StoredSize stored(*stream, set, 32768);
  set(100000);
  EXPECT_EQ(stored.Get(), 100000U);
}

TEST_F(CZARNTCPSessionBaseRules, AddressesAreToldAsTextAndNumberAndByPointer) {
  auto transport = NewTransport();
  transport->peer = CAWInetAddr("10.0.0.1", 1000);
  transport->local = CAWInetAddr("10.0.0.2", 2000);
  Handle handle(transport.Get());
  stream->SetTransportHandle(handle);
  EXPECT_EQ(transport->optionsRead, (std::vector<int>{105, 104}));
  std::string ip;
  stream->GetPeerIP(ip);
  EXPECT_EQ(ip, "10.0.0.1");
  stream->GetLocalIP(ip);
  EXPECT_EQ(ip, "10.0.0.2");
  EXPECT_EQ(stream->GetPeerPort(), 1000);
  EXPECT_EQ(stream->GetLocalPort(), 2000);
  const utils::CZARNTCPSessionBase& base = *stream;
  EXPECT_EQ(*base.GetPeerAddr(), transport->peer);
  EXPECT_EQ(*base.GetLocalAddr(), transport->local);
}

// --- connecting ---

TEST_F(CZARNTCPSessionBaseRules, ConnectAsksForAConnectorOfKindOneAndGivesItThreeSeconds) {
  EXPECT_EQ(Connect(), AW_OK);
  EXPECT_EQ(manager.kinds, std::vector<int>{1});
  EXPECT_EQ(*manager.Last().timeout, keelbase::CAWTimeValue(3, 0));
}

TEST_F(CZARNTCPSessionBaseRules, ConnectReturnsTheManagersErrorAndLeavesAClosedSessionClosed) {
  stream->Close(0);
  manager.createResult = 10012;
  EXPECT_EQ(Connect(), 10012U);
  EXPECT_TRUE(stream->IsClose());
}

TEST_F(CZARNTCPSessionBaseRules, ConnectCancelsThenDisconnectsThenStartsAndKeepsBothBuffers) {
  auto old = ConnectWithFullBuffers();
  log.clear();
  Connect(2);
  EXPECT_EQ(log, (CallLog{"connector.CancelConnect", "transport.Disconnect(0)",
                          "connector.AsyncConnect"}));
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  auto fresh = NewTransport();
  manager.Last().Complete(0, fresh.Get());
  Send("+new");
  EXPECT_EQ(fresh->wire, "queued+new");
  fresh->Receive("+rest;");
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
}

TEST_F(CZARNTCPSessionBaseRules, FailedConnectClosesAndReportsItAsPeerDisconnect) {
  Connect();
  manager.Last().Complete(ETIMEDOUT, nullptr);
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(" + std::to_string(ETIMEDOUT) + ")"});
  EXPECT_EQ(manager.Last().cancels, 0);
}

// --- the end of the connection ---

TEST_F(CZARNTCPSessionBaseRules, EndKeepsBothBuffersAndTheConnectorAndDoesNotCallClose) {
  auto old = ConnectWithFullBuffers();
  old->End(ECONNRESET);
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  auto fresh = Attach();
  fresh->Receive("+rest;");
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
}

TEST_F(CZARNTCPSessionBaseRules, CloseAfterTheEndDropsBothBuffers) {
  auto old = ConnectWithFullBuffers();
  old->End(0);
  stream->Close(0);
  EXPECT_EQ(manager.Last().cancels, 1);
  ExpectEmptyBuffers();
}

// --- receiving ---

TEST_F(CZARNTCPSessionBaseRules, BytesOfAnyTransportAreParsedLikeAnyOther) {
  auto transport = Attach();
  auto other = NewTransport();
  transport->Receive("ha");
  stream->OnReceive(*Chain({"lf;oth"}), other.Get(), nullptr);
  stream->OnReceive(*Chain({"er;"}), nullptr, nullptr);
  EXPECT_EQ(stream->frames, (Strings{"half", "other"}));
  EXPECT_TRUE(other->disconnects.empty());
}

TEST_F(CZARNTCPSessionBaseRules,
       CountBeyondTheBytesKeepsTheConnectionOpenAndTheBytesAreOfferedAgain) {
  TraceLines trace;
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  log.clear();
  transport->Receive("bytes");
  EXPECT_FALSE(stream->IsClose());
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(trace.Get().empty());
  transport->Receive("+");
  EXPECT_EQ(stream->views, (Strings{"bytes", "bytes+"}));
  stream->onMessage = nullptr;
  transport->Receive("more;");
  EXPECT_EQ(stream->frames, Strings{"bytes+more"});
}

TEST_F(CZARNTCPSessionBaseRules, FramesBeforeACountBeyondTheBytesAreGone) {
  auto transport = Attach();
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    return stream->views.size() == 1 ? 4 : 6;  // 6 would fit the first view but not the second
  };
  transport->Receive("one;two;");
  stream->onMessage = nullptr;
  transport->Receive("three;");
  EXPECT_EQ(stream->frames, (Strings{"two", "three"}));
}

TEST_F(CZARNTCPSessionBaseRules, CountBeyondTheBytesFromAHandlerThatClosedIsAClose) {
  auto transport = Attach();
  stream->onMessage = [&](const char*, std::size_t len) {
    stream->Close(5);
    return len + 1;
  };
  transport->Receive("bytes");
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
  EXPECT_EQ(transport->disconnects, std::vector<long>{5});
  stream->onMessage = nullptr;
  ExpectEmptyBuffers();
}

TEST_F(CZARNTCPSessionBaseRules, TeardownDisconnectsTheTransportAndLeavesTheConnector) {
  auto transport = ConnectWithFullBuffers();
  // Closed by something that holds on to both: another connect that failed.
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    stream->OnConnectIndication(1, nullptr, nullptr);
    return 0;
  };
  log.clear();
  transport->Receive("x");
  EXPECT_EQ(log, (CallLog{"OnPeerDisconnect(1)", "transport.LingerData", "transport.Disconnect(0)",
                          "OnPeerDisconnect(0)"}));
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  stream->onMessage = nullptr;
  ExpectEmptyBuffers();
}

TEST_F(CZARNTCPSessionBaseRules, BytesForAClosedSessionAreOfferedOnceAndTornDown) {
  stream->Close(0);
  stream->OnReceive(*Chain({"one;two;"}), nullptr, nullptr);
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CZARNTCPSessionBaseRules, SendWithoutATransportAnswers10002) {
  EXPECT_EQ(Send("bytes"), 10002U);
}

// --- slots ---

using Session = utils::CZARNTCPSessionBase;
using wface::CAWTransportParameter;
using wface::IAWAcceptorConnectorId;
using wface::IAWTransport;

TEST(VirtualSlots, TcpSessionStartsWithTheTransportSinksSlots) {
  EXPECT_EQ(VirtualSlot<void (Session::*)(CAWMessageBlock&, IAWTransport*, CAWTransportParameter*)>(
                &Session::OnReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (Session::*)(IAWTransport*, CAWTransportParameter*)>(&Session::OnSend),
            1);
  EXPECT_EQ(VirtualSlot<void (Session::*)(long, IAWTransport*)>(&Session::OnDisconnect), 2);
}

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, TcpSessionsOwnOperationsFollowTheDestructorPair) {
  EXPECT_EQ(VirtualSlot<void (Session::*)(long, IAWTransport*, IAWAcceptorConnectorId*)>(
                &Session::OnConnectIndication),
            5);
  EXPECT_EQ(VirtualSlot(&Session::Connect), 6);
  EXPECT_EQ(VirtualSlot<AWResult (Session::*)(CAWMessageBlock&)>(&Session::SendMsg), 7);
  EXPECT_EQ(VirtualSlot<AWResult (Session::*)(const char*, std::size_t)>(&Session::SendMsg), 8);
  EXPECT_EQ(VirtualSlot(&Session::HandleMessage), 9);
  EXPECT_EQ(VirtualSlot(&Session::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot(&Session::OnConnected), 11);
  EXPECT_EQ(VirtualSlot(&Session::OnRcvBufferOverFlow), 12);
  EXPECT_EQ(VirtualSlot(&Session::SetTransportHandle), 13);
  EXPECT_EQ(VirtualSlot(&Session::Close), 14);
}

TEST(VirtualSlots, TcpSessionsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&Session::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Session::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Session::IsClose), -1);
  EXPECT_EQ(VirtualSlot(&Session::GetPeerIP), -1);
  EXPECT_EQ(VirtualSlot(&Session::GetPeerPort), -1);
  EXPECT_EQ(VirtualSlot(&Session::GetPeerAddr), -1);
  EXPECT_EQ(VirtualSlot(&Session::OnReceiveDirect), -1);
}

TEST(VirtualSlots, TcpTransportSinkIsTheSessionsFirstBaseAndConnectSinkItsSecond) {
  EXPECT_TRUE(std::is_abstract_v<Session>);
  RecordingTcpSession recording;
  Session* session = &recording;
  auto* start = reinterpret_cast<char*>(session);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<wface::IAWTransportSink*>(session)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<wface::IAWAcceptorConnectorSink*>(session)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
