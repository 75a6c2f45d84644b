// CZARNSSLTCPSessionBase_test.cpp - what only the TLS session does. The rules of all streams are
// checked in Stream*_test.cpp. Over scripted transports.
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

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

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNSSLTCPSessionBaseRules : public ::testing::Test, public StreamFixture<OverTls> {
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

// --- key and certificate ---

TEST_F(CZARNSSLTCPSessionBaseRules, NoKeyAndNoCertificateAreNotHandedOver) {
  Connect();
  EXPECT_EQ(log, CallLog{"connector.AsyncConnect"});
}

TEST_F(CZARNSSLTCPSessionBaseRules, KeyWithoutCertificateIsHandedOverAlone) {
  EXPECT_EQ(stream->PrivateKey("a key"), AW_OK);
  Connect();
  EXPECT_EQ(log, (CallLog{"connector.SetPrivateKey(a key)", "connector.AsyncConnect"}));
}

TEST_F(CZARNSSLTCPSessionBaseRules, CertificateWithoutKeyIsHandedOverAlone) {
  EXPECT_EQ(stream->Certificate("a certificate"), AW_OK);
  Connect();
  EXPECT_EQ(log, (CallLog{"connector.SetCertificate(a certificate)", "connector.AsyncConnect"}));
}

TEST_F(CZARNSSLTCPSessionBaseRules, KeyIsHandedOverBeforeTheCertificateExactlyAsSetAndEachTime) {
  std::string key = "first\n key ";
  stream->PrivateKey(key);
  stream->Certificate("certificate");
  key = "changed later";  // it was copied
  const CallLog once = {"connector.SetPrivateKey(first\n key )",
                        "connector.SetCertificate(certificate)", "connector.AsyncConnect"};
  Connect();
  EXPECT_EQ(log, once);
  stream->Close(0);
  log.clear();
  Connect();
  EXPECT_EQ(log, once);
  stream->PrivateKey("");
  stream->Close(0);
  log.clear();
  Connect();
  EXPECT_EQ(log, (CallLog{"connector.SetCertificate(certificate)", "connector.AsyncConnect"}));
}

// --- connecting ---

TEST_F(CZARNSSLTCPSessionBaseRules, ConnectAsksForVerificationAndGivesNoName) {
  EXPECT_EQ(Connect(), AW_OK);
  EXPECT_EQ(manager.Last().verify, 1);
  EXPECT_FALSE(manager.Last().hadServerName);
}

TEST_F(CZARNSSLTCPSessionBaseRules, ConnectReturnsTheManagersErrorAndLeavesAClosedSessionClosed) {
  stream->Close(0);
  manager.createResult = 10012;
  EXPECT_EQ(Connect(), 10012U);
  EXPECT_TRUE(stream->IsClose());
}

TEST_F(CZARNSSLTCPSessionBaseRules, ManagerThatMakesNothingAnswers10001) {
  stream->Close(0);
  manager.makesNothing = true;
  EXPECT_EQ(Connect(), AW_ERROR_FAILURE);
  EXPECT_TRUE(stream->IsClose());
}

TEST_F(CZARNSSLTCPSessionBaseRules, ConnectCancelsWithZeroThenDisconnectsAndKeepsBothBuffers) {
  auto old = ConnectWithFullBuffers();
  log.clear();
  Connect(2);
  EXPECT_EQ(log, (CallLog{"connector.CancelConnect", "transport.Disconnect(0)",
                          "connector.AsyncConnect"}));
  EXPECT_EQ(manager.connectors[0]->cancelReasons, std::vector<long>{0});
  auto fresh = NewTransport();
  manager.Last().Complete(0, fresh.Get());
  Send("+new");
  EXPECT_EQ(fresh->wire, "queued+new");
  fresh->Receive("+rest;");
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
}

TEST_F(CZARNSSLTCPSessionBaseRules, RefusedCertificateIsReportedAsPeerDisconnectWithItsReason) {
  Connect();
  manager.Last().Complete(sslutils::AW_SSL_ERROR_CERTIFICATE_EXPIRED, nullptr);
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(10111)"});
  EXPECT_EQ(manager.Last().cancels, 0);
}

// --- ends ---

TEST_F(CZARNSSLTCPSessionBaseRules, CloseCancelsTheConnectorWithZeroWhateverItsReason) {
  auto transport = ConnectFully();
  stream->Close(42);
  EXPECT_EQ(transport->disconnects, std::vector<long>{42});
  EXPECT_EQ(manager.Last().cancelReasons, std::vector<long>{0});
}

TEST_F(CZARNSSLTCPSessionBaseRules, EndKeepsBothBuffersAndTheConnectorAndDoesNotCallClose) {
  auto old = ConnectWithFullBuffers();
  old->End(ECONNRESET);
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  auto fresh = Attach();
  fresh->Receive("+rest;");
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
}

TEST_F(CZARNSSLTCPSessionBaseRules, CloseAfterTheEndDropsBothBuffers) {
  auto old = ConnectWithFullBuffers();
  old->End(0);
  stream->Close(0);
  EXPECT_EQ(manager.Last().cancels, 1);
  ExpectEmptyBuffers();
}

TEST_F(CZARNSSLTCPSessionBaseRules, DestructorLetsGoOfTheConnectorWithoutCancelling) {
  Connect();
  stream.reset();
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

// --- receiving ---

TEST_F(CZARNSSLTCPSessionBaseRules, BytesOfAnyTransportAreParsedAndTheBlockIsLeftAsItIs) {
  auto transport = Attach();
  auto other = NewTransport();
  transport->Receive("ha");
  auto block = Chain({"lf;oth"});
  stream->OnSSLDataReceive(*block, other.Get());
  EXPECT_EQ(block->GetChainedLength(), 6U);
  stream->OnSSLDataReceive(*Chain({"er;"}), nullptr);
  EXPECT_EQ(stream->frames, (Strings{"half", "other"}));
}

TEST_F(CZARNSSLTCPSessionBaseRules,
       CountBeyondTheBytesKeepsTheConnectionOpenAndTheBytesAreOfferedAgain) {
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  log.clear();
  transport->Receive("bytes");
  EXPECT_FALSE(stream->IsClose());
  EXPECT_TRUE(log.empty());
  stream->onMessage = nullptr;
  transport->Receive("+more;");
  EXPECT_EQ(stream->frames, Strings{"bytes+more"});
}

TEST_F(CZARNSSLTCPSessionBaseRules, TeardownDisconnectsTheTransportAndLeavesTheConnector) {
  auto transport = ConnectWithFullBuffers();
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    stream->OnSSLConnected(1, nullptr);  // another connect has failed meanwhile
    return 0;
  };
  log.clear();
  transport->Receive("x");
  EXPECT_EQ(log, (CallLog{"OnPeerDisconnect(1)", "transport.LingerData", "transport.Disconnect(0)",
                          "OnPeerDisconnect(0)"}));
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  stream->onMessage = nullptr;
  ExpectEmptyBuffers();
}

TEST_F(CZARNSSLTCPSessionBaseRules, DirectCountBeyondTheBytesIsTracedUnderTheOwnNameAndCloses) {
  TraceLines trace;
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  EXPECT_EQ(stream->OnReceiveDirect(*Chain({"bytes"})), AW_ERROR_FAILURE);
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 0U);
  EXPECT_EQ(lines[0].text.find("CZARNSSLTCPSessionBase::OnReceiveDirect handlemessage return "
                               "size=6>remainsize=5 this="),
            0U);
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

// --- sending, accessors ---

TEST_F(CZARNSSLTCPSessionBaseRules, SendWithoutATransportAnswers10002) {
  EXPECT_EQ(Send("bytes"), 10002U);
}

TEST_F(CZARNSSLTCPSessionBaseRules, WhatIsRefusedWaitsForOnSSLDataSend) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  EXPECT_EQ(Send("one"), AW_OK);
  EXPECT_EQ(stream->GetSendQueueLength(), 1U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "one");
}

TEST_F(CZARNSSLTCPSessionBaseRules, ReceiveBufferSizeIsStoredUpTo32768AndSendBufferSizeAsItIs) {
  const auto setReceive = [&](std::uint32_t size) { stream->SetRcvBufferSize(size); };
  const StoredSize received(*stream, setReceive, 32768);
  setReceive(100000);
  EXPECT_EQ(received.Get(), 32768U);
  const auto setSend = [&](std::uint32_t size) { stream->SetSendBufferSize(size); };
  const StoredSize sent(*stream, setSend, 32768);
  setSend(100000);
  EXPECT_EQ(sent.Get(), 100000U);
}

TEST_F(CZARNSSLTCPSessionBaseRules, AddressesAreReadPeerFirst) {
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
}

// --- slots ---

using Session = utils::CZARNSSLTCPSessionBase;
using sslutils::IAWSSLConnectionSink;
using sslutils::IAWSSLTransport;
using sslutils::IAWSSLTransportSink;

TEST(VirtualSlots, TlsSinksDeclareTheirCallbacksFirst) {
  EXPECT_EQ(VirtualSlot(&IAWSSLTransportSink::OnSSLDataReceive), 0);
  EXPECT_EQ(VirtualSlot(&IAWSSLTransportSink::OnSSLDisconnect), 1);
  EXPECT_EQ(VirtualSlot(&IAWSSLTransportSink::OnSSLDataSend), 2);
  EXPECT_EQ(VirtualSlot(&IAWSSLConnectionSink::OnSSLConnected), 0);
}

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, TlsSessionStartsWithTheTransportSinksSlotsAndAddsItsOwn) {
  EXPECT_EQ(VirtualSlot<void (Session::*)(CAWMessageBlock&, IAWSSLTransport*)>(
                &Session::OnSSLDataReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (Session::*)(long, IAWSSLTransport*)>(&Session::OnSSLDisconnect), 1);
  EXPECT_EQ(VirtualSlot<void (Session::*)(IAWSSLTransport*)>(&Session::OnSSLDataSend), 2);
  EXPECT_EQ(VirtualSlot<void (Session::*)(long, IAWSSLTransport*)>(&Session::OnSSLConnected), 5);
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

TEST(VirtualSlots, TlsSessionsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&Session::PrivateKey), -1);
  EXPECT_EQ(VirtualSlot(&Session::Certificate), -1);
  EXPECT_EQ(VirtualSlot(&Session::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Session::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Session::IsClose), -1);
  EXPECT_EQ(VirtualSlot(&Session::GetPeerIP), -1);
  EXPECT_EQ(VirtualSlot(&Session::OnReceiveDirect), -1);
}

TEST(VirtualSlots, TlsTransportSinkIsTheSessionsFirstBaseAndConnectionSinkItsSecond) {
  EXPECT_TRUE(std::is_abstract_v<Session>);
  RecordingTlsSession recording;
  Session* session = &recording;
  auto* start = reinterpret_cast<char*>(session);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLTransportSink*>(session)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLConnectionSink*>(session)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
