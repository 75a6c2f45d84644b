// CZARNTCPSessionBase_test.cpp - what only the TCP session does. The rules of all streams are
// checked in Stream*_test.cpp. Over scripted transports.
#include "zarn/utils/CZARNTCPSessionBase.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "NetworkThread.h"
#include "SessionFixture.h"
#include "VirtualSlot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNTCPSessionBaseRules : public ::testing::Test, public SessionFixture<OverTcp> {};

// --- connecting ---

TEST_F(CZARNTCPSessionBaseRules, ConnectAsksForAConnectorOfKindOneAndGivesItThreeSeconds) {
  EXPECT_EQ(Connect(), AW_OK);
  EXPECT_EQ(manager.kinds, std::vector<int>{1});
  EXPECT_EQ(*manager.Last().timeout, keelbase::CAWTimeValue(3, 0));
}

// --- slots ---

using TcpSession = utils::CZARNTCPSessionBase;
using wface::CAWTransportParameter;
using wface::IAWAcceptorConnectorId;
using wface::IAWTransport;

TEST(VirtualSlots, TcpSessionStartsWithTheTransportSinksSlots) {
  EXPECT_EQ(
      VirtualSlot<void (TcpSession::*)(CAWMessageBlock&, IAWTransport*, CAWTransportParameter*)>(
          &TcpSession::OnReceive),
      0);
  EXPECT_EQ(
      VirtualSlot<void (TcpSession::*)(IAWTransport*, CAWTransportParameter*)>(&TcpSession::OnSend),
      1);
  EXPECT_EQ(VirtualSlot<void (TcpSession::*)(long, IAWTransport*)>(&TcpSession::OnDisconnect), 2);
}

// 3 and 4 are the destructor pair.
TEST(VirtualSlots, TcpSessionsOwnOperationsFollowTheDestructorPair) {
  EXPECT_EQ(VirtualSlot<void (TcpSession::*)(long, IAWTransport*, IAWAcceptorConnectorId*)>(
                &TcpSession::OnConnectIndication),
            5);
  EXPECT_EQ(VirtualSlot(&TcpSession::Connect), 6);
  EXPECT_EQ(VirtualSlot<AWResult (TcpSession::*)(CAWMessageBlock&)>(&TcpSession::SendMsg), 7);
  EXPECT_EQ(VirtualSlot<AWResult (TcpSession::*)(const char*, std::size_t)>(&TcpSession::SendMsg),
            8);
  EXPECT_EQ(VirtualSlot(&TcpSession::HandleMessage), 9);
  EXPECT_EQ(VirtualSlot(&TcpSession::OnPeerDisconnect), 10);
  EXPECT_EQ(VirtualSlot(&TcpSession::OnConnected), 11);
  EXPECT_EQ(VirtualSlot(&TcpSession::OnRcvBufferOverFlow), 12);
  EXPECT_EQ(VirtualSlot(&TcpSession::SetTransportHandle), 13);
  EXPECT_EQ(VirtualSlot(&TcpSession::Close), 14);
}

TEST(VirtualSlots, TcpSessionsAccessorsAreNotVirtual) {
  EXPECT_EQ(VirtualSlot(&TcpSession::SetSendBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&TcpSession::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&TcpSession::IsClose), -1);
  EXPECT_EQ(VirtualSlot(&TcpSession::GetPeerIP), -1);
  EXPECT_EQ(VirtualSlot(&TcpSession::GetPeerPort), -1);
  EXPECT_EQ(VirtualSlot(&TcpSession::GetPeerAddr), -1);
  EXPECT_EQ(VirtualSlot(&TcpSession::OnReceiveDirect), -1);
}

TEST(VirtualSlots, TcpTransportSinkIsTheSessionsFirstBaseAndConnectSinkItsSecond) {
  EXPECT_TRUE(std::is_abstract_v<TcpSession>);
  RecordingTcpSession recording;
  TcpSession* session = &recording;
  auto* start = reinterpret_cast<char*>(session);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<wface::IAWTransportSink*>(session)), start);
  EXPECT_EQ(reinterpret_cast<char*>(static_cast<wface::IAWAcceptorConnectorSink*>(session)),
            start + sizeof(void*));
}

}  // namespace
}  // namespace zarn::test
