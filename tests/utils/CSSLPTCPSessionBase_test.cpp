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

using Session = utils::CSSLPTCPSessionBase;
using sslutils::IAWSSLConnectionSink;
using sslutils::IAWSSLTransport;
using sslutils::IAWSSLTransportSink;

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, SslPtcpSessionStartsWithTheTransportSinksSlotsAndAddsItsOwn) {
  EXPECT_EQ(VirtualSlot<void (Session::*)(CAWMessageBlock&, IAWSSLTransport*)>(
                &Session::OnSSLDataReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (Session::*)(long, IAWSSLTransport*)>(&Session::OnSSLDisconnect), 1);
  EXPECT_EQ(VirtualSlot<void (Session::*)(IAWSSLTransport*)>(&Session::OnSSLDataSend), 2);
  EXPECT_EQ(VirtualSlot<void (Session::*)(long, IAWSSLTransport*)>(&Session::OnSSLConnected), 5);
  EXPECT_EQ(VirtualSlot(&Session::Connect), 6);
  EXPECT_EQ(VirtualSlot<AWResult (Session::*)(CAWMessageBlock&)>(&Session::SendMessage), 7);
  EXPECT_EQ(VirtualSlot<AWResult (Session::*)(const char*, std::size_t)>(&Session::SendMessage), 8);
  EXPECT_EQ(VirtualSlot(&Session::HandleMessage), 9);
  EXPECT_EQ(VirtualSlot(&Session::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot(&Session::OnConnected), 11);
  EXPECT_EQ(VirtualSlot(&Session::OnRcvBufferOverFlow), 12);
  EXPECT_EQ(VirtualSlot(&Session::SetTransportHandle), 13);
  EXPECT_EQ(VirtualSlot(&Session::Close), 14);
}

TEST(VirtualSlots, SslPtcpSessionsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&Session::PrivateKey), -1);
  EXPECT_EQ(VirtualSlot(&Session::Certificate), -1);
  EXPECT_EQ(VirtualSlot(&Session::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Session::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Session::IsClose), -1);
  EXPECT_EQ(VirtualSlot(&Session::GetPeerIP), -1);
  EXPECT_EQ(VirtualSlot(&Session::OnReceiveDirect), -1);
}

TEST(VirtualSlots, SslPtcpTransportSinkIsTheSessionsFirstBaseAndConnectionSinkItsSecond) {
  EXPECT_TRUE(std::is_abstract_v<Session>);
  RecordingSslPtcpSession recording;
  Session* session = &recording;
  auto* start = reinterpret_cast<char*>(session);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLTransportSink*>(session)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLConnectionSink*>(session)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
