// TlsStream_test.cpp - the TLS engine: handshake, bytes, what was agreed. TlsStream_ends_test.cpp
// has the ends of connections.
#include "sslutils/internal/TlsStream.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>

#include "TlsStreamPair.h"
#include "keelbase/internal/ManualClock.h"

namespace sslutils::internal {
namespace {

// --- handshake ---

TEST(TlsStream, BothSidesAreToldOnceThatTheHandshakeIsDone) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.StartBoth();
    EXPECT_EQ(pair.client.established, 0);
    EXPECT_EQ(pair.server_.established, 0);
    EXPECT_EQ(pair.client.dones + pair.server_.dones, 2);
  });
}

TEST(TlsStream, NothingIsToldFromInsideStart) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Start(pair.client);
    EXPECT_EQ(pair.client.dones, 0);
    EXPECT_TRUE(pair.client.end.sent.empty());
    pair.Move();
    EXPECT_FALSE(pair.client.end.sent.empty());
  });
}

TEST(TlsStream, HandshakeWorksByteByByte) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Start(pair.client);
    pair.Start(pair.server_);
    for (int rounds = 0; rounds < 20; ++rounds) {
      pair.loop.RunReady();
      for (const char byte : std::exchange(pair.client.end.sent, {}))
        pair.server_.end.Arrive(std::string(1, byte));
      for (const char byte : std::exchange(pair.server_.end.sent, {}))
        pair.client.end.Arrive(std::string(1, byte));
    }
    EXPECT_EQ(pair.client.established, 0);
    EXPECT_EQ(pair.server_.established, 0);
  });
}

TEST(TlsStream, GarbageInsteadOfAHandshakeIsRefusedWithAReason) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Start(pair.server_);
    pair.loop.RunReady();
    pair.server_.end.Arrive("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(pair.server_.established, AW_SSL_ERROR_HANDSHAKE);
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

// The server's key is not of the kind that the client's only cipher is for.
TEST(TlsStream, SidesWithoutACommonCipherAreToldWhoRefusedWhom) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop, TLS1_2_VERSION, "ECDHE-RSA-AES256-GCM-SHA384");
    pair.StartBoth();
    EXPECT_EQ(pair.server_.established, AW_SSL_ERROR_NO_COMMON_CIPHER);
    EXPECT_EQ(pair.client.established, AW_SSL_ERROR_REFUSED);
  });
}

TEST(TlsStream, SilentPeerIsGivenUpAfterTheLimit) {
  WithLoop([](EventLoop& loop) {
    keelbase::internal::ManualClock clock;
    TlsPair pair(loop);
    pair.Start(pair.server_);
    pair.loop.RunReady();
    clock.Advance(kLimit - std::chrono::milliseconds(1));
    pair.loop.RunReady();
    EXPECT_EQ(pair.server_.dones, 0);
    clock.Advance(std::chrono::milliseconds(2));
    pair.loop.RunReady();
    EXPECT_EQ(pair.server_.established, AW_SSL_ERROR_HANDSHAKE_TIME);
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStream, EndOfThePeerDuringTheHandshakeIsACut) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Start(pair.client);
    pair.loop.RunReady();
    pair.client.end.End(0);
    EXPECT_EQ(pair.client.established, AW_SSL_ERROR_CUT);
  });
}

TEST(TlsStream, ResetDuringTheHandshakeKeepsItsReason) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Start(pair.client);
    pair.loop.RunReady();
    pair.client.end.End(ECONNRESET);
    EXPECT_EQ(pair.client.established, ECONNRESET);
  });
}

TEST(TlsStream, FailedWriteDuringTheHandshakeIsItsReason) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.client.end.sendResult = EPIPE;
    pair.Start(pair.client);
    pair.loop.RunReady();
    EXPECT_EQ(pair.client.established, EPIPE);
    EXPECT_TRUE(pair.client.end.disconnected);
  });
}

TEST(TlsStream, FailedWriteOfWhatTheHandshakeHadFoundNoRoomForIsItsReason) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.server_.end.room = 100;
    pair.Start(pair.client);
    pair.Start(pair.server_);
    loop.RunReady();
    TlsPair::MoveOnce(pair.client.end, pair.server_.end);
    EXPECT_EQ(pair.server_.end.sent.size(), 100U);
    pair.server_.end.sendResult = AW_ERROR_FAILURE;
    pair.server_.end.MakeRoom(100000);
    loop.RunReady();
    EXPECT_EQ(pair.server_.established, AW_ERROR_FAILURE);
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStream, PeerThatAnnouncesItsEndDuringTheHandshakeHasRefusedIt) {
  WithLoop([](EventLoop& loop) {
    const std::string closeNotify("\x15\x03\x03\x00\x02\x01\x00", 7);
    TlsPair pair(loop);
    pair.Start(pair.client);
    pair.Start(pair.server_);
    loop.RunReady();
    pair.server_.end.Arrive(std::exchange(pair.client.end.sent, {}));
    for (TlsSide* side : {&pair.client, &pair.server_}) {
      side->end.Arrive(closeNotify);
      EXPECT_EQ(side->established, AW_SSL_ERROR_REFUSED) << (side == &pair.client);
      EXPECT_TRUE(side->end.disconnected);
    }
  });
}

TEST(TlsStream, NothingIsToldAfterDisconnectDuringTheHandshake) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Start(pair.client);
    pair.Start(pair.server_);
    pair.client.stream->Disconnect();
    pair.Move();
    EXPECT_EQ(pair.client.dones, 0);
    EXPECT_TRUE(pair.client.end.disconnected);
  });
}

// --- bytes ---

class TlsStreamVersions : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Tls, TlsStreamVersions, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& version) {
                           return version.param == TLS1_2_VERSION ? "v12" : "v13";
                         });

TEST_P(TlsStreamVersions, BytesGoBothWays) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop, GetParam());
    pair.Open();
    EXPECT_EQ(TlsPair::Send(pair.client, "there"), AW_OK);
    EXPECT_EQ(TlsPair::Send(pair.server_, "back"), AW_OK);
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "there");
    EXPECT_EQ(pair.client.sink.received, "back");
  });
}

TEST_P(TlsStreamVersions, MegabytesArriveUnchangedThroughATightTransport) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop, GetParam());
    pair.Open();
    pair.client.end.room = 1000;
    const std::string all = Pattern(3 << 20);
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    AWResult result = pair.client.stream->Send(block);
    EXPECT_EQ(result, AW_ERROR_PARTIAL_DATA);
    pair.client.sink.onRoom = [&] { result = pair.client.stream->Send(block); };
    pair.Move();
    EXPECT_EQ(result, AW_OK);
    EXPECT_TRUE(pair.server_.sink.received == all);
    EXPECT_LE(pair.server_.sink.longest, 65535U);
  });
}

TEST(TlsStream, SmallSendsOfOneTurnShareARecord) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    keelbase::CAWTransportCounters before;
    pair.client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &before);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(TlsPair::Send(pair.client, "0123456789"), AW_OK);
    EXPECT_TRUE(pair.client.end.sent.empty());
    keelbase::CAWTransportCounters gathered;
    pair.client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &gathered);
    EXPECT_EQ(gathered.queuedBytes, 1000U);
    pair.Move();
    keelbase::CAWTransportCounters after;
    pair.client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &after);
    EXPECT_EQ(after.systemCallsSent - before.systemCallsSent, 1U);
    EXPECT_EQ(after.blocksSent - before.blocksSent, 100U);
    EXPECT_EQ(after.bytesSent - before.bytesSent, 1000U);
    EXPECT_EQ(pair.server_.sink.received.size(), 1000U);
  });
}

TEST(TlsStream, ChainOfHeaderAndPayloadKeepsItsOrder) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    const std::string payload = Pattern(65000);
    CAWMessageBlock head("header", 6, CAWMessageBlock::borrow);
    CAWMessageBlock tail(payload.data(), payload.size(), CAWMessageBlock::borrow);
    const CAWMessageBlock::LinkForCall link(head, tail);
    EXPECT_EQ(pair.client.stream->Send(head), AW_OK);
    EXPECT_EQ(head.GetChainedLength(), 0U);
    pair.Move();
    EXPECT_TRUE(pair.server_.sink.received == "header" + payload);
  });
}

TEST(TlsStream, BlockedTransportBoundsWhatIsTakenAndTellsOfRoomOnce) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.end.room = 0;
    const std::string all = Pattern(1 << 20);
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.client.stream->Send(block), AW_ERROR_PARTIAL_DATA);
    const std::size_t taken = all.size() - block.GetLength();
    EXPECT_LE(taken, 32U * 1024);
    pair.loop.RunReady();
    EXPECT_EQ(pair.client.sink.rooms, 0);
    pair.client.end.MakeRoom(1 << 20);
    pair.Move();
    EXPECT_EQ(pair.client.sink.rooms, 1);
    EXPECT_TRUE(pair.server_.sink.received == all.substr(0, taken));
  });
}

TEST(TlsStream, ReadSizeBoundsEachReceiveEvent) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    std::uint32_t size = 100;
    EXPECT_EQ(pair.server_.stream->SetOption(keelbase::AW_OPT_READ_SIZE, &size), AW_OK);
    TlsPair::Send(pair.client, Pattern(1000));
    pair.Move();
    EXPECT_EQ(pair.server_.sink.longest, 100U);
    EXPECT_TRUE(pair.server_.sink.received == Pattern(1000));
  });
}

TEST(TlsStream, BytesThatComeBeforeOpenWaitForIt) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.StartBoth();
    pair.client.stream->Open(&pair.client.sink);
    TlsPair::Send(pair.client, "early");
    pair.loop.RunReady();
    EXPECT_TRUE(pair.server_.end.readingStopped);
    pair.server_.end.Arrive(std::exchange(pair.client.end.sent, {}));  // were on their way already
    EXPECT_EQ(pair.server_.stream->Open(&pair.server_.sink), AW_OK);
    EXPECT_TRUE(pair.server_.sink.received.empty());  // never from inside Open
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "early");
    EXPECT_FALSE(pair.server_.end.readingStopped);
  });
}

TEST(TlsStream, RoomThatComesBeforeOpenIsToldOnceAfterIt) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.StartBoth();
    pair.client.end.room = 0;
    EXPECT_EQ(TlsPair::Send(pair.client, Pattern(1 << 20)), AW_ERROR_PARTIAL_DATA);
    pair.client.end.MakeRoom(1 << 20);
    EXPECT_EQ(pair.client.stream->Open(&pair.client.sink), AW_OK);
    EXPECT_EQ(pair.client.sink.rooms, 0);  // never from inside Open
    pair.Move();
    EXPECT_EQ(pair.client.sink.rooms, 1);
  });
}

TEST(TlsStream, OpenTakesOneSinkOnce) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.StartBoth();
    EXPECT_EQ(pair.client.stream->Open(nullptr), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.client.stream->Open(&pair.client.sink), AW_OK);
    EXPECT_EQ(pair.client.stream->Open(&pair.client.sink), AW_ERROR_FAILURE);
  });
}

TEST(TlsStream, AnswerToAChangeOfKeysThatFindsNoRoomHoldsNothingUp) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.server_.end.room = 0;
    EXPECT_EQ(SSL_key_update(pair.clientSsl, SSL_KEY_UPDATE_REQUESTED), 1);
    TlsPair::Send(pair.client, "under the new keys");
    pair.loop.RunReady();
    TlsPair::MoveOnce(pair.client.end, pair.server_.end);
    EXPECT_EQ(pair.server_.sink.received, "under the new keys");
    TlsPair::Send(pair.server_, "likewise");
    pair.loop.RunReady();
    pair.server_.end.MakeRoom(100000);
    pair.Move();
    EXPECT_EQ(pair.client.sink.received, "likewise");
    EXPECT_EQ(pair.server_.sink.ends + pair.client.sink.ends, 0);
  });
}

TEST(TlsStream, ChangeOfKeysThatComesWhileARecordWaitsForRoomEndsNothing) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.server_.end.room = 0;
    std::string sent;
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(TlsPair::Send(pair.server_, "record " + std::to_string(i)), AW_OK);
      sent += "record " + std::to_string(i);
      loop.RunReady();
      EXPECT_EQ(SSL_key_update(pair.clientSsl, SSL_KEY_UPDATE_REQUESTED), 1);
      EXPECT_EQ(TlsPair::Send(pair.client, "."), AW_OK);
      loop.RunReady();
      TlsPair::MoveOnce(pair.client.end, pair.server_.end);
      pair.server_.end.MakeRoom(20);
      pair.server_.end.room = 0;
      TlsPair::MoveOnce(pair.server_.end, pair.client.end);
    }
    pair.server_.end.MakeRoom(100000);
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "..........");
    EXPECT_EQ(pair.client.sink.received, sent);
    EXPECT_EQ(pair.server_.sink.ends + pair.client.sink.ends, 0);
  });
}

TEST(TlsStream, BytesThatFoundNoRoomAreCountedAsQueuedUntilTheyAreSent) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.end.room = 7;
    EXPECT_EQ(TlsPair::Send(pair.client, std::string(16384, 'x')), AW_OK);
    keelbase::CAWTransportCounters counters;
    pair.client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
    EXPECT_GT(counters.queuedBytes, 16384U);  // a record is longer than its text
    EXPECT_EQ(counters.queuedHighMark, counters.queuedBytes);
    EXPECT_EQ(TlsPair::Send(pair.client, std::string(10000, 'x')), AW_OK);
    pair.client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
    EXPECT_GT(counters.queuedBytes, 16384U + 10000);
    EXPECT_EQ(counters.queuedHighMark, counters.queuedBytes);
    pair.client.end.MakeRoom(100000);
    loop.RunReady();
    pair.client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
    EXPECT_EQ(counters.queuedBytes, 0U);
    EXPECT_GT(counters.queuedHighMark, 16384U);
  });
}

TEST(TlsStream, PeerThatReadsNoAnswersToItsChangesOfKeysIsReadNoFurtherUntilTheyFindRoom) {
  WithLoop([](EventLoop& loop) {
    UnreadAnswersPair pair(loop);
    EXPECT_EQ(TlsPair::Send(pair.client, ", second"), AW_OK);
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "first");
    EXPECT_FALSE(pair.client.end.sent.empty());
    keelbase::CAWTransportCounters counters;
    pair.server_.stream->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
    EXPECT_LT(counters.queuedBytes, 34000U);
    EXPECT_GE(counters.queuedHighMark, counters.queuedBytes);
    pair.server_.end.MakeRoom(100000);
    EXPECT_FALSE(pair.server_.end.readingStopped);
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "first, second");
    EXPECT_EQ(pair.client.sink.received, "answer");
  });
}

TEST(TlsStream, OwnerThatReadsAgainReadsNoFurtherUntilTheAnswersToChangesOfKeysFindRoom) {
  WithLoop([](EventLoop& loop) {
    UnreadAnswersPair pair(loop);
    pair.Arrive(", second");
    for (bool stop : {true, false})
      pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    pair.Move();
    EXPECT_TRUE(pair.server_.end.readingStopped);
    pair.server_.end.MakeRoom(100000);
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "first, second");
  });
}

TEST(TlsStream, StoppedReaderGetsNothingUntilItReadsAgain) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    bool stop = true;
    pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    EXPECT_TRUE(pair.server_.end.readingStopped);
    TlsPair::Send(pair.client, "later");
    pair.loop.RunReady();
    pair.server_.end.Arrive(std::exchange(pair.client.end.sent, {}));
    EXPECT_TRUE(pair.server_.sink.received.empty());
    stop = false;
    pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    EXPECT_TRUE(pair.server_.sink.received.empty());
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "later");
  });
}

TEST(TlsStream, StoppedReaderIsGivenWhatCameBeforeTheEnd) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    bool stop = true;
    pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    TlsPair::Send(pair.client, "last words");
    pair.loop.RunReady();
    pair.server_.end.Arrive(std::exchange(pair.client.end.sent, {}));
    pair.server_.end.End(0);
    EXPECT_EQ(pair.server_.sink.received, "last words");
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_CUT);
  });
}

// --- sending in the middle of a message of the peer's TLS ---

TEST(TlsStream, WhatIsSentInTheMiddleOfATicketGoesOutBehindIt) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    EXPECT_EQ(TlsPair::Send(pair.client, "meanwhile"), AW_OK);
    loop.RunReady();
    EXPECT_TRUE(pair.client.end.sent.empty());
    EXPECT_EQ(TlsPair::Send(pair.client, ", and more"), AW_OK);
    pair.ArriveRest();
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "meanwhile, and more");
    EXPECT_EQ(pair.client.sink.received, "behind it");
    EXPECT_EQ(pair.client.sink.rooms, 0);
  });
}

TEST(TlsStream, SenderThatIsHeldUpInTheMiddleOfATicketIsToldOfRoomOnce) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    const std::string all = Pattern(100000);
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.client.stream->Send(block), AW_ERROR_PARTIAL_DATA);
    loop.RunReady();
    EXPECT_EQ(pair.client.sink.rooms, 0);
    pair.client.sink.onRoom = [&] { EXPECT_EQ(pair.client.stream->Send(block), AW_OK); };
    pair.ArriveRest();
    pair.Move();
    EXPECT_EQ(pair.client.sink.rooms, 1);
    EXPECT_TRUE(pair.server_.sink.received == all);
    EXPECT_EQ(pair.client.sink.received, "behind it");
  });
}

TEST(TlsStream, TicketIsReadForASenderThatReadsNothingUntilItHasSent) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    bool stop = true;
    pair.client.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    EXPECT_TRUE(pair.client.end.readingStopped);
    EXPECT_EQ(TlsPair::Send(pair.client, std::string(100000, 'x')), AW_ERROR_PARTIAL_DATA);
    EXPECT_FALSE(pair.client.end.readingStopped);
    pair.ArriveRest();
    EXPECT_EQ(pair.client.sink.rooms, 1);
    EXPECT_TRUE(pair.client.end.readingStopped);
    EXPECT_TRUE(pair.client.sink.received.empty());
    stop = false;
    pair.client.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    pair.Move();
    EXPECT_EQ(pair.client.sink.received, "behind it");
  });
}

TEST(TlsStream, SinkMayDropTheStreamWhenTheEndOfATicketMakesRoom) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    EXPECT_EQ(TlsPair::Send(pair.client, std::string(100000, 'x')), AW_ERROR_PARTIAL_DATA);
    pair.client.sink.onRoom = [&] { TlsPair::Drop(pair.client); };
    pair.ArriveRest();
    EXPECT_FALSE(pair.client.stream);
    pair.Move();
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

// --- what was agreed ---

TEST_P(TlsStreamVersions, InfoTellsProtocolAndPeer) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop, GetParam());
    pair.Open();
    CAWSSLInfo info;
    EXPECT_EQ(pair.client.stream->GetOption(AW_OPT_SSL_INFO, &info), AW_OK);
    EXPECT_EQ(info.protocol, GetParam() == TLS1_2_VERSION ? "TLSv1.2" : "TLSv1.3");
    EXPECT_FALSE(info.cipher.empty());
    EXPECT_FALSE(info.resumed);
    EXPECT_TRUE(info.peerVerified);
    EXPECT_EQ(info.peerSubject, "CN = localhost");
    EXPECT_NE(info.peerCertificate.find("BEGIN CERTIFICATE"), std::string::npos);
    CAWSSLInfo other;
    EXPECT_EQ(pair.server_.stream->GetOption(AW_OPT_SSL_INFO, &other), AW_OK);
    EXPECT_FALSE(other.peerVerified);
    EXPECT_TRUE(other.peerSubject.empty());
  });
}

TEST(TlsStream, OptionsThatNobodyKnowsAreRefused) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    int value = 0;
    EXPECT_EQ(pair.client.stream->GetOption(9999, &value), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.client.stream->GetOption(AW_OPT_SSL_INFO, nullptr), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.client.stream->SetOption(keelbase::AW_OPT_LINGER, nullptr), AW_ERROR_FAILURE);
  });
}

}  // namespace
}  // namespace sslutils::internal
