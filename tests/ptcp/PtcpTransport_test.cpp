// PtcpTransport_test.cpp - what every transport promises, over real loopback sockets.
#include <cerrno>

#include "RealPtcp.h"
#include "keelbase/CAWTransport.h"
#include "keelbase/internal/ManualClock.h"

namespace ptcp::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;

class PtcpTransport : public RealPtcp {
 protected:
  void SetUp() override {
    RealPtcp::SetUp();
    ListenAndConnect();
  }
  keelbase::CAWTransportCounters Counters(IAWPseudoTCPTransport& transport) {
    keelbase::CAWTransportCounters counters;
    EXPECT_EQ(transport.GetOption(keelbase::AW_OPT_COUNTERS, &counters), AW_OK);
    return counters;
  }
};

TEST_F(PtcpTransport, BytesGoBothWays) {
  Open();
  EXPECT_EQ(SendText(*client, "question"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received == "question"; }));
  EXPECT_EQ(SendText(*server, "answer"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return clientSink.received == "answer"; }));
}

TEST_F(PtcpTransport, BytesThatCameEarlyWaitForTheOpen) {
  ASSERT_EQ(client->OpenWithSink(&clientSink), AW_OK);
  EXPECT_EQ(SendText(*client, "early"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return Counters(*client).bytesSent == 5; }));
  ASSERT_EQ(server->OpenWithSink(&serverSink), AW_OK);
  EXPECT_EQ(serverSink.received, "");
  ASSERT_TRUE(WaitFor([&] { return serverSink.received == "early"; }));
}

TEST_F(PtcpTransport, OpeningFailsForMisuseOnly) {
  EXPECT_EQ(client->OpenWithSink(nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(client->OpenWithSink(&clientSink), AW_OK);
  EXPECT_EQ(client->OpenWithSink(&clientSink), AW_ERROR_FAILURE);
}

TEST_F(PtcpTransport, OpeningADeadOneSucceedsAndTheEndFollows) {
  server->OpenWithSink(&serverSink);
  client->Disconnect(0);
  ASSERT_TRUE(WaitFor([&] { return serverSink.ended; }));
  Connect();
  server->Disconnect(0);
  server = nullptr;
  ASSERT_FALSE(WaitFor([] { return false; }, std::chrono::milliseconds(50)));
  EXPECT_EQ(client->OpenWithSink(&clientSink), AW_OK);
  EXPECT_FALSE(clientSink.ended);
  ASSERT_TRUE(WaitFor([&] { return clientSink.ended; }));
  EXPECT_EQ(clientSink.reason, 0);
}

TEST_F(PtcpTransport, ManyMegabytesArriveWholeAndInOrder) {
  Open();
  const std::string text = Pattern(40 << 20);
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(client->SendData(block, nullptr), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received.size() == text.size(); }));
  EXPECT_TRUE(serverSink.received == text);
  ASSERT_TRUE(WaitFor([&] { return Counters(*client).bytesSent == text.size(); }));
}

TEST_F(PtcpTransport, ASendIsTakenWholeBelowTheBoundAndNotAtAllAboveIt) {
  Open();
  const std::string much(9 << 20, 'x');
  bool stop = true;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  EXPECT_EQ(SendText(*client, much), AW_OK);
  EXPECT_EQ(SendText(*client, much), AW_ERROR_PARTIAL_DATA);
  EXPECT_EQ(Counters(*client).partialSends, 1U);
  EXPECT_EQ(clientSink.rooms, 0);
  stop = false;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  ASSERT_TRUE(WaitFor([&] { return clientSink.rooms == 1; }));
  EXPECT_EQ(SendText(*client, "end"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received.size() == much.size() + 3; }));
  EXPECT_EQ(clientSink.rooms, 1);
}

TEST_F(PtcpTransport, TheBoundCanBeSet) {
  Open();
  std::uint32_t bound = 0;
  EXPECT_EQ(client->SetOption(AW_OPT_SEND_QUEUE_LIMIT, &bound), AW_ERROR_FAILURE);
  bound = 1;
  EXPECT_EQ(client->SetOption(AW_OPT_SEND_QUEUE_LIMIT, &bound), AW_OK);
  EXPECT_EQ(SendText(*client, "a"), AW_OK);
  EXPECT_EQ(SendText(*client, "b"), AW_ERROR_PARTIAL_DATA);
  ASSERT_TRUE(WaitFor([&] { return clientSink.rooms == 1; }));
}

TEST_F(PtcpTransport, ASendWithoutBytesIsTakenAlsoWhenTheQueueIsFull) {
  Open();
  std::uint32_t bound = 1;
  EXPECT_EQ(client->SetOption(AW_OPT_SEND_QUEUE_LIMIT, &bound), AW_OK);
  EXPECT_EQ(SendText(*client, "a"), AW_OK);
  EXPECT_EQ(SendText(*client, "b"), AW_ERROR_PARTIAL_DATA);
  CAWMessageBlock empty(nullptr, 0, CAWMessageBlock::borrow);
  EXPECT_EQ(client->SendData(empty, nullptr), AW_OK);
}

TEST_F(PtcpTransport, WhatThePeerHasNotAcknowledgedIsTold) {
  Open();
  const auto unacknowledged = [](IAWPseudoTCPTransport& transport) {
    std::uint64_t bytes = UINT64_MAX;
    EXPECT_EQ(transport.GetOption(AW_OPT_UNACKNOWLEDGED, &bytes), AW_OK);
    return bytes;
  };
  EXPECT_EQ(client->GetOption(AW_OPT_UNACKNOWLEDGED, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(unacknowledged(*client), 0U);
  EXPECT_EQ(SendText(*client, "question"), AW_OK);
  EXPECT_EQ(unacknowledged(*client), 8U);
  EXPECT_EQ(SendText(*server, "answer"), AW_OK);
  EXPECT_EQ(unacknowledged(*server), 6U);
  ASSERT_TRUE(WaitFor([&] { return unacknowledged(*client) + unacknowledged(*server) == 0; }));
  EXPECT_EQ(serverSink.received + clientSink.received, "questionanswer");
}

TEST_F(PtcpTransport, SmallSendsOfATurnShareOnePacket) {
  Open();
  WaitFor([] { return false; }, std::chrono::milliseconds(200));  // path MTU probes
  const auto before = Counters(*client);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(SendText(*client, "0123456789"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received.size() == 500; }));
  const auto after = Counters(*client);
  EXPECT_EQ(after.blocksSent - before.blocksSent, 50U);
  EXPECT_LE(after.systemCallsSent - before.systemCallsSent, 4U);
}

TEST_F(PtcpTransport, DisconnectDetachesAtOnceAndWhatWasTakenStillArrives) {
  Open();
  const std::string text = Pattern(6 << 20);
  EXPECT_EQ(SendText(*client, text), AW_OK);
  EXPECT_EQ(client->Disconnect(0), AW_OK);
  EXPECT_EQ(SendText(*client, "more"), AW_ERROR_NOT_INITIALIZED);
  ASSERT_TRUE(WaitFor([&] { return serverSink.ended; }));
  EXPECT_EQ(serverSink.reason, 0);
  EXPECT_TRUE(serverSink.received == text);
  EXPECT_FALSE(clientSink.ended);
}

TEST_F(PtcpTransport, LettingGoOfTheLastReferenceIsADisconnect) {
  Open();
  EXPECT_EQ(SendText(*client, "last words"), AW_OK);
  client = nullptr;
  ASSERT_TRUE(WaitFor([&] { return serverSink.ended; }));
  EXPECT_EQ(serverSink.reason, 0);
  EXPECT_EQ(serverSink.received, "last words");
}

TEST_F(PtcpTransport, WithoutLingeringWhatDidNotArriveIsDroppedAndThePeerKnows) {
  Open();
  bool stop = true;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  std::uint32_t none = 0;
  EXPECT_EQ(client->SetOption(keelbase::AW_OPT_LINGER, &none), AW_OK);
  EXPECT_EQ(SendText(*client, Pattern(12 << 20)), AW_OK);
  client->Disconnect(0);
  ASSERT_TRUE(WaitFor([&] { return serverSink.ended; }));
  EXPECT_EQ(serverSink.reason, ECONNRESET);
  EXPECT_LT(serverSink.received.size(), std::size_t{12} << 20);
}

TEST_F(PtcpTransport, LingeringEndsInTimeWhenNobodyReads) {
  Open();
  bool stop = true;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  std::uint32_t some = 100;
  client->SetOption(keelbase::AW_OPT_LINGER, &some);
  EXPECT_EQ(SendText(*client, Pattern(12 << 20)), AW_OK);
  const auto start = std::chrono::steady_clock::now();
  client->Disconnect(0);
  ASSERT_TRUE(WaitFor([&] { return serverSink.ended; }));
  EXPECT_EQ(serverSink.reason, ECONNRESET);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(PtcpTransport, BytesForTheLingerComeAfterAllOthers) {
  Open();
  EXPECT_EQ(SendText(*client, "first "), AW_OK);
  std::string text = "and last";
  CAWMessageBlock last(text.data(), text.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(client->SetOption(keelbase::AW_OPT_LINGER_DATA, &last), AW_OK);
  EXPECT_EQ(last.GetLength(), text.size());
  client->Disconnect(0);
  ASSERT_TRUE(WaitFor([&] { return serverSink.ended; }));
  EXPECT_EQ(serverSink.received, "first and last");
}

TEST_F(PtcpTransport, BothSidesMayCloseAtOnce) {
  Open();
  EXPECT_EQ(SendText(*client, "a"), AW_OK);
  EXPECT_EQ(SendText(*server, "b"), AW_OK);
  client->Disconnect(0);
  server->Disconnect(0);
  client = nullptr;
  server = nullptr;
  WaitFor([] { return false; }, std::chrono::milliseconds(100));
  EXPECT_FALSE(clientSink.ended);
  EXPECT_FALSE(serverSink.ended);
}

TEST_F(PtcpTransport, WhileReadingIsStoppedNothingComesButTheEndDoesAfterAllBytes) {
  Open();
  bool stop = true;
  EXPECT_EQ(server->SetOption(keelbase::AW_OPT_STOP_READING, &stop), AW_OK);
  EXPECT_EQ(SendText(*client, "unread"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return Counters(*client).bytesSent == 6; }));
  EXPECT_EQ(serverSink.received, "");
  client->Disconnect(0);
  ASSERT_TRUE(WaitFor([&] { return serverSink.ended; }));
  EXPECT_EQ(serverSink.received, "unread");
}

TEST_F(PtcpTransport, ReadingOnDeliversWhatWaited) {
  Open();
  bool stop = true;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  EXPECT_EQ(SendText(*client, "waits"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return Counters(*client).bytesSent == 5; }));
  stop = false;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received == "waits"; }));
}

TEST_F(PtcpTransport, ReadingOnTellsASenderThatWaitsForTheWindow) {
  Open();
  bool stop = true;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  const std::string text = Pattern(20 << 20);
  EXPECT_EQ(SendText(*client, text), AW_OK);
  const std::size_t window = (8U << 20) - 1;  // less the byte that opens the stream
  ASSERT_TRUE(WaitFor([&] { return Counters(*client).bytesSent == window; }));
  keelbase::internal::ManualClock clock;
  stop = false;
  server->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
  for (int i = 0; i < 2000 && serverSink.received.size() <= window; ++i) {
    clock.Advance(std::chrono::milliseconds(1));  // the sign of life of an idle side is not due
    zarn::test::RunReady();
  }
  EXPECT_GT(serverSink.received.size(), window);
}

TEST_F(PtcpTransport, OneReceiveBringsNoMoreThanTheReadSize) {
  Open();
  std::uint32_t size = 10;
  EXPECT_EQ(server->SetOption(keelbase::AW_OPT_READ_SIZE, &size), AW_OK);
  std::size_t before = 0;
  std::size_t largest = 0;
  serverSink.onReceive = [&] {
    largest = std::max(largest, serverSink.received.size() - before);
    before = serverSink.received.size();
  };
  EXPECT_EQ(SendText(*client, Pattern(95)), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return serverSink.received.size() == 95; }));
  EXPECT_EQ(largest, 10U);
}

TEST_F(PtcpTransport, ASinkMayDropTheTransportInsideAnyCallback) {
  Open();
  serverSink.onReceive = [&] {
    server->Disconnect(0);
    server = nullptr;
  };
  clientSink.onDisconnect = [&] { client = nullptr; };
  EXPECT_EQ(SendText(*client, "go"), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return clientSink.ended; }));
  EXPECT_EQ(clientSink.reason, 0);
  EXPECT_EQ(serverSink.received, "go");
}

TEST_F(PtcpTransport, AddressesAreThoseOfThePackets) {
  CAWInetAddr ours;
  CAWInetAddr theirs;
  EXPECT_EQ(server->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &ours), AW_OK);
  EXPECT_EQ(server->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &theirs), AW_OK);
  EXPECT_EQ(ours, address);
  CAWInetAddr clients;
  EXPECT_EQ(client->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &clients), AW_OK);
  EXPECT_EQ(clients, theirs);
  EXPECT_EQ(client->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &clients), AW_OK);
  EXPECT_EQ(clients, address);
}

TEST_F(PtcpTransport, UnknownOptionsAndNullAreRefused) {
  int value = 0;
  EXPECT_EQ(client->GetOption(9999, &value), AW_ERROR_FAILURE);
  EXPECT_EQ(client->SetOption(9999, &value), AW_ERROR_FAILURE);
  EXPECT_EQ(client->GetOption(keelbase::AW_OPT_COUNTERS, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(client->SetOption(keelbase::AW_OPT_LINGER, nullptr), AW_ERROR_FAILURE);
}

TEST_F(PtcpTransport, AnIdleConnectionTurnsTheLoopForItsSignsOfLifeOnly) {
  keelbase::internal::ManualClock clock;
  Open();
  auto* thread =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  const auto countTurns = [&](int milliseconds) {
    int turns = 0;
    for (int i = 0; i < milliseconds; ++i) {
      clock.Advance(std::chrono::milliseconds(1));
      turns += thread->TEST_RunReady() ? 1 : 0;
    }
    return turns;
  };
  countTurns(10000);  // path MTU probes are over by now
  constexpr int kSigns = 10;
  const int turns = countTurns(kSigns * 3000);
  EXPECT_GE(turns, kSigns);
  EXPECT_LE(turns, 3 * kSigns);
  EXPECT_FALSE(clientSink.ended || serverSink.ended);
}

}  // namespace
}  // namespace ptcp::test
