// CSSLPTCPSessionBase_test.cpp - what only the session of TLS over pseudo-TCP
// does. The rules of all streams are
// checked in Stream*_test.cpp. Over scripted transports.
#include "zarn/utils/CSSLPTCPSessionBase.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "NetworkThread.h"
#include "SessionFixture.h"
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

class CSSLPTCPSessionBaseRules : public ::testing::Test, public SessionFixture<OverSslPtcp> {};

// --- connecting ---

TEST_F(CSSLPTCPSessionBaseRules, ConnectGivesNoName) {
  EXPECT_EQ(Connect(), AW_OK);
  EXPECT_FALSE(manager.Last().hadServerName);
}

// --- ends ---

TEST_F(CSSLPTCPSessionBaseRules, CloseKeepsTheConnectorOfAnIssuedConnectAndDropsBothBuffers) {
  auto transport = ConnectWithFullBuffers();
  stream->Close(42);
  EXPECT_EQ(transport->disconnects, std::vector<long>{42});
  EXPECT_EQ(transport->lingerData, "queued");
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  EXPECT_TRUE(stream->IsClose());
  ExpectEmptyBuffers();
}

TEST_F(CSSLPTCPSessionBaseRules, ConnectThatGoesOnAfterCloseOpensTheSession) {
  Connect();
  stream->Close(0);
  auto transport = NewTransport();
  manager.Last().Complete(0, transport.Get());
  EXPECT_EQ(stream->upcalls, Strings{"OnConnected(0)"});
  EXPECT_FALSE(stream->IsClose());
}

TEST_F(CSSLPTCPSessionBaseRules, CloseWithoutAnIssuedConnectCancelsTheConnectorWithZero) {
  manager.connectResult = 10001;
  EXPECT_EQ(Connect(), AW_ERROR_FAILURE);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  stream->Close(42);
  EXPECT_EQ(manager.Last().cancelReasons, std::vector<long>{0});
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

TEST_F(CSSLPTCPSessionBaseRules, DestructorCancelsTheConnectorWithZeroAndLetsGoOfItFirst) {
  auto transport = ConnectWithFullBuffers();
  log.clear();
  stream.reset();
  EXPECT_EQ(
      log, (CallLog{"connector.CancelConnect", "transport.LingerData", "transport.Disconnect(0)"}));
  EXPECT_EQ(manager.Last().cancelReasons, std::vector<long>{0});
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

// --- slots ---

using SslPtcpSession = utils::CSSLPTCPSessionBase;
using sslutils::IAWSSLConnectionSink;
using sslutils::IAWSSLTransport;
using sslutils::IAWSSLTransportSink;

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, SslPtcpSessionStartsWithTheTransportSinksSlotsAndAddsItsOwn) {
  EXPECT_EQ(VirtualSlot<void (SslPtcpSession::*)(CAWMessageBlock&, IAWSSLTransport*)>(
                &SslPtcpSession::OnSSLDataReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (SslPtcpSession::*)(long, IAWSSLTransport*)>(
                &SslPtcpSession::OnSSLDisconnect),
            1);
  EXPECT_EQ(VirtualSlot<void (SslPtcpSession::*)(IAWSSLTransport*)>(&SslPtcpSession::OnSSLDataSend),
            2);
  EXPECT_EQ(VirtualSlot<void (SslPtcpSession::*)(long, IAWSSLTransport*)>(
                &SslPtcpSession::OnSSLConnected),
            5);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::Connect), 6);
  EXPECT_EQ(
      VirtualSlot<AWResult (SslPtcpSession::*)(CAWMessageBlock&)>(&SslPtcpSession::SendMessage), 7);
  EXPECT_EQ(VirtualSlot<AWResult (SslPtcpSession::*)(const char*, std::size_t)>(
                &SslPtcpSession::SendMessage),
            8);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::HandleMessage), 9);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::OnConnected), 11);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::OnRcvBufferOverFlow), 12);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::SetTransportHandle), 13);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::Close), 14);
}

TEST(VirtualSlots, SslPtcpSessionsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::PrivateKey), -1);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::Certificate), -1);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::IsClose), -1);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::GetPeerIP), -1);
  EXPECT_EQ(VirtualSlot(&SslPtcpSession::OnReceiveDirect), -1);
}

TEST(VirtualSlots, SslPtcpTransportSinkIsTheSessionsFirstBaseAndConnectionSinkItsSecond) {
  EXPECT_TRUE(std::is_abstract_v<SslPtcpSession>);
  RecordingSslPtcpSession recording;
  SslPtcpSession* session = &recording;
  auto* start = reinterpret_cast<char*>(session);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLTransportSink*>(session)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLConnectionSink*>(session)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
