// CZARNSSLTCPSessionBase_test.cpp - what only the TLS session does. The rules of all streams are
// checked in Stream*_test.cpp. Over scripted transports.
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

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

class CZARNSSLTCPSessionBaseRules : public ::testing::Test, public SessionFixture<OverTls> {};

// --- connecting ---

TEST_F(CZARNSSLTCPSessionBaseRules, ConnectAsksForVerificationAndGivesNoName) {
  EXPECT_EQ(Connect(), AW_OK);
  EXPECT_EQ(manager.Last().verify, 1);
  EXPECT_FALSE(manager.Last().hadServerName);
}

// --- ends ---

TEST_F(CZARNSSLTCPSessionBaseRules, CloseCancelsTheConnectorWithZeroWhateverItsReason) {
  auto transport = ConnectFully();
  stream->Close(42);
  EXPECT_EQ(transport->disconnects, std::vector<long>{42});
  EXPECT_EQ(manager.Last().cancelReasons, std::vector<long>{0});
}

TEST_F(CZARNSSLTCPSessionBaseRules, DestructorLetsGoOfTheConnectorWithoutCancelling) {
  Connect();
  stream.reset();
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

// --- slots ---

using TlsTcpSession = utils::CZARNSSLTCPSessionBase;
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
  EXPECT_EQ(VirtualSlot<void (TlsTcpSession::*)(CAWMessageBlock&, IAWSSLTransport*)>(
                &TlsTcpSession::OnSSLDataReceive),
            0);
  EXPECT_EQ(
      VirtualSlot<void (TlsTcpSession::*)(long, IAWSSLTransport*)>(&TlsTcpSession::OnSSLDisconnect),
      1);
  EXPECT_EQ(VirtualSlot<void (TlsTcpSession::*)(IAWSSLTransport*)>(&TlsTcpSession::OnSSLDataSend),
            2);
  EXPECT_EQ(
      VirtualSlot<void (TlsTcpSession::*)(long, IAWSSLTransport*)>(&TlsTcpSession::OnSSLConnected),
      5);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::Connect), 6);
  EXPECT_EQ(VirtualSlot<AWResult (TlsTcpSession::*)(CAWMessageBlock&)>(&TlsTcpSession::SendMsg), 7);
  EXPECT_EQ(
      VirtualSlot<AWResult (TlsTcpSession::*)(const char*, std::size_t)>(&TlsTcpSession::SendMsg),
      8);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::HandleMessage), 9);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::OnConnected), 11);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::OnRcvBufferOverFlow), 12);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::SetTransportHandle), 13);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::Close), 14);
}

TEST(VirtualSlots, TlsSessionsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::PrivateKey), -1);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::Certificate), -1);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::IsClose), -1);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::GetPeerIP), -1);
  EXPECT_EQ(VirtualSlot(&TlsTcpSession::OnReceiveDirect), -1);
}

TEST(VirtualSlots, TlsTransportSinkIsTheSessionsFirstBaseAndConnectionSinkItsSecond) {
  EXPECT_TRUE(std::is_abstract_v<TlsTcpSession>);
  RecordingTlsSession recording;
  TlsTcpSession* session = &recording;
  auto* start = reinterpret_cast<char*>(session);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLTransportSink*>(session)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<IAWSSLConnectionSink*>(session)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
