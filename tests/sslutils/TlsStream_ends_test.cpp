// TlsStream_ends_test.cpp - how connections of the TLS engine end.
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

class TlsStreamEnds : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Tls, TlsStreamEnds, ::testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& version) {
                           return version.param == TLS1_2_VERSION ? "v12" : "v13";
                         });

// The second request is one that OpenSSL answers while it reads.
void AskTwiceForNewKeys(SSL* ssl) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED), 1);
    EXPECT_EQ(SSL_do_handshake(ssl), 1);
  }
}

// The server has refused the handshake, and its alert is on its way.
struct RefusedPair : TlsPair {
  explicit RefusedPair(EventLoop& l) : TlsPair(l, TLS1_2_VERSION) {
    Start(client);
    Start(server_);
    loop.RunReady();
    server_.end.Arrive(std::exchange(client.end.sent, {}) + std::string(1000, '\0'));
    EXPECT_EQ(server_.established, AW_SSL_ERROR_HANDSHAKE);
    EXPECT_FALSE(server_.end.disconnected);
    EXPECT_EQ(server_.closes, 0);
  }
};

TEST(TlsStreamEnd, RefusedHandshakeAwaitsThePeersEndSoThatItsAlertIsNotLost) {
  WithLoop([](EventLoop& loop) {
    RefusedPair pair(loop);
    TlsPair::Drop(pair.server_);
    pair.server_.end.Arrive(std::string(1000, '\0'));
    EXPECT_FALSE(pair.server_.end.disconnected);
    pair.client.end.Arrive(pair.server_.end.sent);
    EXPECT_EQ(pair.client.established, AW_SSL_ERROR_VERSION);
    EXPECT_TRUE(pair.client.end.disconnected);
    pair.server_.end.End(0);
    EXPECT_TRUE(pair.server_.end.destroyed);
    EXPECT_EQ(pair.server_.closes, 1);
    EXPECT_EQ(pair.server_.dones, 1);
  });
}

TEST(TlsStreamEnd, PeerThatStaysAfterItsHandshakeWasRefusedIsGivenUpAfterTheLinger) {
  WithLoop([](EventLoop& loop) {
    keelbase::internal::ManualClock clock;
    RefusedPair pair(loop);
    clock.Advance(std::chrono::milliseconds(1999));
    pair.loop.RunReady();
    EXPECT_FALSE(pair.server_.end.disconnected);
    clock.Advance(std::chrono::milliseconds(2));
    pair.loop.RunReady();
    EXPECT_TRUE(pair.server_.end.disconnected);
    EXPECT_EQ(pair.server_.end.lingerMs, 0U);
    EXPECT_EQ(pair.server_.closes, 1);
  });
}

TEST(TlsStreamEnd, EndOfTheProcessLeavesARefusedHandshakeToTheTransportBelow) {
  WithLoop([](EventLoop& loop) {
    RefusedPair pair(loop);
    pair.loop.FinishLingers();
    EXPECT_TRUE(pair.server_.end.disconnected);
    EXPECT_FALSE(pair.server_.end.awaitsEnd);
  });
}

TEST(TlsStreamEnd, DisconnectedHandshakeHoldsNothingAndTellsNothing) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Start(pair.client);
    pair.Move();
    RefusedPair refused(loop);
    for (TlsSide* side : {&pair.client, &refused.server_}) {
      side->stream->Disconnect();
      EXPECT_TRUE(side->end.disconnected);
      EXPECT_EQ(side->end.lingerMs, 0U);
      EXPECT_EQ(side->closes, 0);
    }
  });
}

TEST_P(TlsStreamEnds, OrderlyEndIsReasonZeroAfterAllBytes) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop, GetParam());
    pair.Open();
    TlsPair::Send(pair.client, "all of it");
    pair.client.stream->Disconnect();
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "all of it");
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, 0);
    EXPECT_EQ(pair.client.sink.ends, 0);
  });
}

TEST(TlsStreamEnd, CutWithoutAnnouncementIsAReasonOfItsOwn) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.server_.end.End(0);
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_CUT);
  });
}

TEST(TlsStreamEnd, ResetKeepsItsReason) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.server_.end.End(ECONNRESET);
    EXPECT_EQ(pair.server_.sink.reason, ECONNRESET);
  });
}

TEST_P(TlsStreamEnds, GarbageRecordEndsThatConnectionWithAReason) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop, GetParam());
    pair.Open();
    pair.server_.end.Arrive(std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'x'));
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_RECORD);
    EXPECT_TRUE(pair.server_.end.disconnected);
    EXPECT_NE(TlsPair::Send(pair.server_, "x"), AW_OK);
  });
}

TEST_P(TlsStreamEnds, ChangedByteEndsTheConnectionAfterWhatCameBeforeIt) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop, GetParam());
    pair.Open();
    TlsPair::Send(pair.client, "good");
    pair.loop.RunReady();
    const std::string good = std::exchange(pair.client.end.sent, {});
    TlsPair::Send(pair.client, "bad");
    pair.loop.RunReady();
    std::string bad = std::exchange(pair.client.end.sent, {});
    bad.back() = static_cast<char>(bad.back() ^ 1);
    pair.server_.end.Arrive(good + bad);
    EXPECT_EQ(pair.server_.sink.received, "good");
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_RECORD);
  });
}

TEST(TlsStreamEnd, WhatCameBeforeTheEndIsDeliveredThoughTheAnswersToChangesOfKeysFindNoRoom) {
  WithLoop([](EventLoop& loop) {
    UnreadAnswersPair pair(loop);
    pair.Arrive(", second");
    EXPECT_EQ(SSL_shutdown(pair.clientSsl), 0);
    pair.Arrive("");
    EXPECT_EQ(pair.server_.sink.received, "first");
    pair.server_.end.End(0);
    EXPECT_EQ(pair.server_.sink.received, "first, second");
    EXPECT_EQ(pair.server_.sink.reason, 0);
    pair.server_.stream->Disconnect();
    pair.client.end.Arrive(pair.server_.end.lingerData);
    EXPECT_EQ(pair.client.sink.received, "answer");
  });
}

TEST(TlsStreamEnd, ManyRequestsForNewKeysBeforeTheEndAreReadInSeveralTurns) {
  WithLoop([](EventLoop& loop) {
    UnreadAnswersPair pair(loop);
    for (int i = 0; i < 3000; ++i) AskTwiceForNewKeys(pair.clientSsl);
    pair.Arrive(", second");
    pair.server_.end.End(0);
    EXPECT_EQ(TlsPair::Send(pair.server_, "meanwhile"), AW_OK);
    EXPECT_EQ(pair.server_.sink.received, "first");
    EXPECT_EQ(pair.server_.sink.ends, 0);
    loop.RunReady();
    EXPECT_EQ(pair.server_.sink.received, "first, second");
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_CUT);
  });
}

TEST(TlsStreamEnd, OwnerMayDropTheStreamWhileWhatCameBeforeTheEndIsRead) {
  WithLoop([](EventLoop& loop) {
    UnreadAnswersPair pair(loop);
    for (int i = 0; i < 3000; ++i) AskTwiceForNewKeys(pair.clientSsl);
    pair.Arrive(", second");
    pair.server_.end.End(0);
    pair.server_.stream->Disconnect();
    TlsPair::Drop(pair.server_);
    EXPECT_TRUE(pair.server_.end.destroyed);
    loop.RunReady();
    EXPECT_EQ(pair.server_.sink.received, "first");
    EXPECT_EQ(pair.server_.sink.ends, 0);
  });
}

TEST(TlsStreamEnd, StoppedReaderIsGivenWhatCameBeforeTheEndThoughAnswersToChangesOfKeysWait) {
  WithLoop([](EventLoop& loop) {
    UnreadAnswersPair pair(loop);
    bool stop = true;
    pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    pair.Arrive(", second");
    pair.server_.end.End(0);
    EXPECT_EQ(pair.server_.sink.received, "first, second");
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_CUT);
  });
}

TEST(TlsStreamEnd, RenegotiationCompressionEarlyDataAndOldVersionsAreOff) {
  WithLoop([](EventLoop& loop) {
    TlsServer context;
    const auto own = Authority().Issue();
    context.SetPrivateKey(own.key);
    context.SetCertificate(own.certificate);
    ASSERT_EQ(context.Prepare(), AW_OK);
    const SslPtr ssl = context.MakeSsl();
    EXPECT_NE(SSL_get_options(ssl.get()) & SSL_OP_NO_RENEGOTIATION, 0U);
    EXPECT_NE(SSL_get_options(ssl.get()) & SSL_OP_NO_COMPRESSION, 0U);
    EXPECT_EQ(SSL_get_max_early_data(ssl.get()), 0U);
    EXPECT_EQ(SSL_get_min_proto_version(ssl.get()), TLS1_2_VERSION);
    (void)loop;
  });
}

TEST(TlsStreamEnd, DisconnectAwaitsThePeersEndSoThatNothingIsReset) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    EXPECT_FALSE(pair.client.end.disconnected);
    TlsPair::Send(pair.server_, "nobody reads this any more");
    pair.loop.RunReady();
    pair.client.end.Arrive(std::exchange(pair.server_.end.sent, {}));
    EXPECT_FALSE(pair.client.end.disconnected);
    pair.client.end.End(0);
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.client.sink.received.empty());
  });
}

TEST(TlsStreamEnd, BothSidesMayDisconnectAtOnceAndNobodyWaits) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    pair.server_.stream->Disconnect();
    pair.Move();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStreamEnd, PeerThatNeverEndsIsGivenUpAfterTheLinger) {
  WithLoop([](EventLoop& loop) {
    keelbase::internal::ManualClock clock;
    TlsPair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    TlsPair::Drop(pair.client);
    clock.Advance(std::chrono::milliseconds(1999));
    pair.loop.RunReady();
    EXPECT_FALSE(pair.client.end.disconnected);
    clock.Advance(std::chrono::milliseconds(2));
    pair.loop.RunReady();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.client.end.destroyed);
  });
}

TEST(TlsStreamEnd, EndOfTheProcessLeavesWhatIsLeftOfTheLingerToTheTransportBelow) {
  WithLoop([](EventLoop& loop) {
    keelbase::internal::ManualClock clock;
    TlsPair pair(loop);
    pair.Open();
    pair.client.end.room = 0;
    TlsPair::Send(pair.client, "still to be written");
    pair.client.stream->Disconnect();
    EXPECT_FALSE(pair.client.end.disconnected);
    clock.Advance(std::chrono::milliseconds(500));
    pair.loop.FinishLingers();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_EQ(pair.client.end.lingerMs, 1500U);
    pair.server_.end.Arrive(pair.client.end.lingerData);
    EXPECT_EQ(pair.server_.sink.received, "still to be written");
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, EndOfTheProcessLeavesTheWaitForThePeersEndToTheTransportBelow) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    pair.loop.FinishLingers();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.client.end.awaitsEnd);
  });
}

TEST(TlsStreamEnd, AllThatWasTakenIsWrittenAfterDisconnectOnABlockedTransport) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.end.room = 100;
    const std::string all = Pattern(200000);
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.client.stream->Send(block), AW_ERROR_PARTIAL_DATA);
    CAWMessageBlock rest(block.GetReadPtr(), block.GetLength(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.client.stream->SetOption(keelbase::AW_OPT_LINGER_DATA, &rest), AW_OK);
    pair.client.stream->Disconnect();
    pair.Move();
    EXPECT_TRUE(pair.server_.sink.received == all);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

// The client has been closed with much still to be written, and there is little room.
struct FullLingerPair : TlsPair {
  explicit FullLingerPair(EventLoop& l) : TlsPair(l), all(Pattern(1 << 20)) {
    Open();
    client.end.room = 1000;
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(client.stream->SetOption(keelbase::AW_OPT_LINGER_DATA, &block), AW_OK);
    client.stream->Disconnect();
  }
  std::uint64_t Encrypted() const {
    keelbase::CAWTransportCounters counters;
    client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
    return counters.queuedBytes;
  }
  const std::string all;
};

TEST(TlsStreamEnd, NoMoreIsEncryptedAfterDisconnectThanThereIsRoomFor) {
  WithLoop([](EventLoop& loop) {
    FullLingerPair pair(loop);
    for (int i = 0; i < 100; ++i) {
      EXPECT_GT(pair.Encrypted(), 0U);
      EXPECT_LT(pair.Encrypted(), 34000U);
      TlsPair::MoveOnce(pair.client.end, pair.server_.end);
    }
    pair.Move();
    EXPECT_TRUE(pair.server_.sink.received == pair.all);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, PeerThatAsksForNewKeysIsReadNoFurtherWhileWhatWasTakenFindsNoRoom) {
  WithLoop([](EventLoop& loop) {
    FullLingerPair pair(loop);
    EXPECT_EQ(TlsPair::Send(pair.server_, "."), AW_OK);
    for (int asked = 0; asked < 10000 && !pair.client.end.readingStopped; ++asked) {
      AskTwiceForNewKeys(pair.serverSsl);
      TlsPair::MoveOnce(pair.server_.end, pair.client.end);
    }
    EXPECT_TRUE(pair.client.end.readingStopped);
    EXPECT_LT(pair.Encrypted(), 66000U);
    AskTwiceForNewKeys(pair.serverSsl);  // on its way all the same
    pair.client.end.Arrive(std::exchange(pair.server_.end.sent, {}));
    EXPECT_LT(pair.Encrypted(), 66000U);
    pair.Move();
    EXPECT_TRUE(pair.server_.sink.received == pair.all);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, AllThatWasTakenIsWrittenThoughThePeerAnnouncesItsEndMeanwhile) {
  WithLoop([](EventLoop& loop) {
    FullLingerPair pair(loop);
    EXPECT_EQ(SSL_shutdown(pair.serverSsl), 0);
    TlsPair::MoveOnce(pair.server_.end, pair.client.end);
    EXPECT_FALSE(pair.client.end.disconnected);
    EXPECT_LT(pair.Encrypted(), 34000U);
    pair.Move();
    EXPECT_TRUE(pair.client.end.disconnected);
    pair.server_.end.Arrive(pair.client.end.lingerData);
    EXPECT_TRUE(pair.server_.sink.received == pair.all);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, TransportBelowIsLeftAllThatWasTakenWhenNoMoreRoomWillBeTold) {
  WithLoop([](EventLoop& loop) {
    for (const bool exit : {false, true}) {
      FullLingerPair pair(loop);
      TlsPair::MoveOnce(pair.client.end, pair.server_.end);
      if (exit) {
        loop.FinishLingers();
      } else {
        pair.client.end.End(0);  // the peer has only ended its side
      }
      EXPECT_TRUE(pair.client.end.disconnected);
      pair.server_.end.Arrive(pair.client.end.sent + pair.client.end.lingerData);
      EXPECT_TRUE(pair.server_.sink.received == pair.all) << exit;
      EXPECT_EQ(pair.server_.sink.reason, 0) << exit;
    }
  });
}

TEST(TlsStreamEnd, NothingMoreIsEncryptedForAConnectionThatIsBroken) {
  WithLoop([](EventLoop& loop) {
    FullLingerPair pair(loop);
    pair.client.end.End(ECONNRESET);
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_LT(pair.client.end.lingerData.size(), 34000U);
  });
}

TEST(TlsStreamEnd, AllThatWasTakenIsWrittenAfterDisconnectInTheMiddleOfATicket) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    const std::string all = Pattern(200000);
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.client.stream->Send(block), AW_ERROR_PARTIAL_DATA);
    CAWMessageBlock rest(block.GetReadPtr(), block.GetLength(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.client.stream->SetOption(keelbase::AW_OPT_LINGER_DATA, &rest), AW_OK);
    TlsPair::Drop(pair.client);
    EXPECT_FALSE(pair.client.end.disconnected);
    pair.ArriveRest();
    pair.Move();
    EXPECT_TRUE(pair.server_.sink.received == all);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, DisconnectInTheMiddleOfATicketEndsInOrderBehindIt) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    pair.client.stream->Disconnect();
    EXPECT_TRUE(pair.client.end.sent.empty());
    pair.ArriveRest();
    pair.Move();
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, DisconnectInTheMiddleOfATicketEndsInOrderThoughAllTheRestComesInOneEvent) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    pair.client.stream->Disconnect();
    EXPECT_TRUE(pair.client.end.sent.empty());
    pair.client.end.Arrive(std::exchange(pair.rest, {}));
    pair.Move();
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, DisconnectInTheMiddleOfATicketEndsInOrderThoughThePeersEndComesWithTheRest) {
  WithLoop([](EventLoop& loop) {
    TicketPair pair(loop);
    pair.client.stream->Disconnect();
    EXPECT_EQ(SSL_shutdown(pair.serverSsl), 0);
    pair.client.end.Arrive(pair.rest + std::exchange(pair.server_.end.sent, {}));
    EXPECT_FALSE(pair.client.end.sent.empty());
    EXPECT_TRUE(pair.client.end.disconnected);
  });
}

TEST(TlsStreamEnd, NothingFollowsOurEndThoughThePeerAsksForNewKeys) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.server_.stream->Disconnect();
    EXPECT_FALSE(std::exchange(pair.server_.end.sent, {}).empty());
    for (int i = 0; i < 2; ++i) {  // an answer is due when we read on
      EXPECT_EQ(SSL_key_update(pair.clientSsl, SSL_KEY_UPDATE_REQUESTED), 1);
      EXPECT_EQ(TlsPair::Send(pair.client, "on and on"), AW_OK);
      loop.RunReady();
      TlsPair::MoveOnce(pair.client.end, pair.server_.end);
    }
    EXPECT_TRUE(pair.server_.end.sent.empty());
    EXPECT_FALSE(pair.server_.end.disconnected);
  });
}

TEST(TlsStreamEnd, LingerEndsWhenTheTransportBelowTakesNoMore) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.end.room = 10;
    EXPECT_EQ(TlsPair::Send(pair.client, std::string(200000, 'x')), AW_ERROR_PARTIAL_DATA);
    pair.client.stream->Disconnect();
    EXPECT_FALSE(pair.client.end.disconnected);
    pair.client.end.sendResult = ECONNRESET;
    pair.client.end.MakeRoom(100000);
    EXPECT_TRUE(pair.client.end.disconnected);
  });
}

TEST(TlsStreamEnd, LingerEndsForGoodWhenTheTransportBelowFindsNoMemory) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.end.room = 0;
    pair.Send(pair.client, Pattern(10000));
    loop.RunReady();
    pair.Drop(pair.client);
    EXPECT_FALSE(pair.client.end.destroyed);
    pair.client.end.sendResult = AW_ERROR_FAILURE;
    pair.client.end.MakeRoom(1 << 20);
    EXPECT_TRUE(pair.client.end.destroyed);
    loop.RunReady();  // nothing of it is left in the turn
  });
}

TEST(TlsStreamEnd, LingerOfZeroDropsAtOnceWhatIsNotTaken) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    std::uint32_t none = 0;
    pair.client.stream->SetOption(keelbase::AW_OPT_LINGER, &none);
    pair.client.end.room = 0;
    TlsPair::Send(pair.client, "lost");
    pair.client.stream->Disconnect();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_EQ(pair.client.end.lingerMs, 0U);
  });
}

TEST(TlsStreamEnd, WhatWasTakenGoesOutAlsoAfterThePeersOrderlyEnd) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    TlsPair::Send(pair.server_, "answer");
    pair.server_.end.Arrive(std::exchange(pair.client.end.sent, {}));
    EXPECT_EQ(pair.server_.sink.reason, 0);
    pair.server_.stream->Disconnect();
    EXPECT_FALSE(pair.server_.end.sent.empty());
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStreamEnd, SendAfterDisconnectAnswers10002) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    EXPECT_EQ(TlsPair::Send(pair.client, "x"), AW_ERROR_NOT_INITIALIZED);
  });
}

TEST(TlsStreamEnd, FailedWriteIsAnsweredAndTheEndFollowsWhatThePeerHadSent) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    TlsPair::Send(pair.server_, "sent before");
    pair.loop.RunReady();
    const std::string sent = std::exchange(pair.server_.end.sent, {});
    pair.client.end.sendResult = EPIPE;
    EXPECT_EQ(TlsPair::Send(pair.client, std::string(20000, 'x')), AWResult{EPIPE});
    EXPECT_EQ(TlsPair::Send(pair.client, "x"), AWResult{EPIPE});
    EXPECT_EQ(pair.client.sink.ends, 0);
    pair.client.end.Arrive(sent);
    pair.client.end.End(ECONNRESET);
    EXPECT_EQ(pair.client.sink.received, "sent before");
    EXPECT_EQ(pair.client.sink.reason, EPIPE);
  });
}

TEST(TlsStreamEnd, FailedWriteLosesNothingOfWhatThePeerHadSentBehindARequestForNewKeys) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    EXPECT_EQ(TlsPair::Send(pair.server_, "one, "), AW_OK);
    loop.RunReady();
    AskTwiceForNewKeys(pair.serverSsl);
    EXPECT_EQ(TlsPair::Send(pair.server_, "two"), AW_OK);
    loop.RunReady();
    pair.client.end.sendResult = EPIPE;
    EXPECT_EQ(TlsPair::Send(pair.client, std::string(20000, 'x')), AWResult{EPIPE});
    TlsPair::MoveOnce(pair.server_.end, pair.client.end);
    pair.client.end.End(ECONNRESET);
    EXPECT_EQ(pair.client.sink.received, "one, two");
    EXPECT_EQ(pair.client.sink.reason, EPIPE);
  });
}

TEST(TlsStreamEnd, AnswerToARequestForNewKeysThatCannotBeWrittenLosesNothingBehindIt) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    AskTwiceForNewKeys(pair.serverSsl);
    EXPECT_EQ(TlsPair::Send(pair.server_, "all"), AW_OK);
    loop.RunReady();
    EXPECT_EQ(SSL_shutdown(pair.serverSsl), 0);
    pair.client.end.sendResult = EPIPE;
    TlsPair::MoveOnce(pair.server_.end, pair.client.end);
    pair.client.end.End(0);
    EXPECT_EQ(pair.client.sink.received, "all");
    EXPECT_EQ(pair.client.sink.reason, 0);
  });
}

TEST(TlsStreamEnd, WhatCameBeforeIsDeliveredWhenWaitingAnswersToChangesOfKeysCannotBeWritten) {
  WithLoop([](EventLoop& loop) {
    for (const bool stop : {false, true}) {
      UnreadAnswersPair pair(loop);
      pair.Arrive(", second");
      bool stopped = stop;
      pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stopped);
      pair.server_.end.sendResult = AW_ERROR_FAILURE;
      pair.server_.end.MakeRoom(1000);
      loop.RunReady();
      EXPECT_EQ(pair.server_.sink.received, "first, second") << stop;
      EXPECT_EQ(pair.server_.sink.reason, long{AW_ERROR_FAILURE}) << stop;
    }
  });
}

TEST(TlsStreamEnd, NothingFollowsBytesThatWereLostWhenTheConnectionIsClosed) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    EXPECT_EQ(TlsPair::Send(pair.client, "lost"), AW_OK);
    const std::string text = "last words";
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    EXPECT_EQ(pair.client.stream->SetOption(keelbase::AW_OPT_LINGER_DATA, &block), AW_OK);
    pair.client.end.sendResult = AW_ERROR_FAILURE;
    pair.client.stream->Disconnect();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.client.end.sent.empty());
    EXPECT_TRUE(pair.client.end.lingerData.empty());
  });
}

TEST(TlsStreamEnd, NoMemoryInAReceiverEndsTheConnection) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.server_.sink.failMemory = true;
    TlsPair::Send(pair.client, "x");
    pair.Move();
    EXPECT_EQ(pair.server_.sink.reason, ENOMEM);
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStreamEnd, SinkMayDropTheStreamInsideEachCallback) {
  WithLoop([](EventLoop& loop) {
    for (int where = 0; where < 4; ++where) {
      TlsPair pair(loop);
      const auto drop = [&pair] {
        pair.server_.stream->Disconnect();
        TlsPair::Drop(pair.server_);
      };
      if (where == 0) {
        pair.server_.onDone = drop;
        pair.StartBoth();
      } else {
        pair.Open();
        if (where == 1) pair.server_.sink.onBytes = drop;
        if (where == 2) pair.server_.sink.onEnd = drop;
        if (where == 3) {
          pair.server_.sink.onRoom = drop;
          pair.server_.end.room = 0;
          TlsPair::Send(pair.server_, std::string(100000, 'x'));
          pair.server_.end.MakeRoom(1 << 20);
        }
        TlsPair::Send(pair.client, "go");
        pair.client.stream->Disconnect();
      }
      pair.Move();
      EXPECT_FALSE(pair.server_.stream) << where;
    }
  });
}

TEST(TlsStreamEnd, SinkMaySendAndCloseInsideAReceive) {
  WithLoop([](EventLoop& loop) {
    TlsPair pair(loop);
    pair.Open();
    pair.server_.sink.onBytes = [&] {
      EXPECT_EQ(TlsPair::Send(pair.server_, "answer"), AW_OK);
      pair.server_.stream->Disconnect();
    };
    TlsPair::Send(pair.client, "question");
    pair.Move();
    EXPECT_EQ(pair.client.sink.received, "answer");
    EXPECT_EQ(pair.client.sink.reason, 0);
  });
}

}  // namespace
}  // namespace sslutils::internal
