// TlsStream_test.cpp - the TLS engine on byte transports in memory that a test moves and breaks.
#include "sslutils/internal/TlsStream.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "LoopThread.h"
#include "MemoryBytes.h"
#include "TlsAuthority.h"
#include "keelbase/internal/ManualClock.h"
#include "sslutils/internal/TlsClient.h"
#include "sslutils/internal/TlsServer.h"

namespace sslutils::internal {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::internal::EventLoop;
using zarn::test::MemoryBytes;
using zarn::test::MemoryEnd;
using zarn::test::TlsAuthority;
using zarn::test::WithLoop;

constexpr std::chrono::seconds kLimit{10};

const TlsAuthority& Authority() {
  static const TlsAuthority authority;
  return authority;
}

struct Sink final : ByteSink {
  void OnBytes(CAWMessageBlock& block) override {
    longest = std::max(longest, block.GetChainedLength());
    received += block.FlattenChained();
    if (failMemory) throw std::bad_alloc();
    if (onBytes) onBytes();
  }
  void OnRoom() override {
    ++rooms;
    if (onRoom) onRoom();
  }
  void OnEnd(long why) override {
    ++ends;
    reason = why;
    if (onEnd) onEnd();
  }
  std::string received;
  std::size_t longest = 0;
  int rooms = 0;
  int ends = 0;
  long reason = -1;
  bool failMemory = false;
  std::function<void()> onBytes;
  std::function<void()> onRoom;
  std::function<void()> onEnd;
};

// One side, its end of the wire and what it was told.
struct Side {
  MemoryEnd end;
  Sink sink;
  CAWAutoPtr<TlsStream> stream;
  long established = -1;
  int dones = 0;
  std::function<void()> onDone;
};

struct Pair {
  explicit Pair(EventLoop& l, int version = TLS1_3_VERSION, const char* ciphers = nullptr)
      : loop(l) {
    const auto server = Authority().Issue();
    EXPECT_EQ(context.SetPrivateKey(server.key), AW_OK);
    EXPECT_EQ(context.SetCertificate(server.certificate), AW_OK);
    EXPECT_EQ(context.Prepare(), AW_OK);
    EXPECT_EQ(SetTrusted(Authority().GetPem()), AW_OK);  // also forgets earlier sessions
    TlsClientSettings settings;
    settings.serverName = "localhost";
    SslPtr ssl;
    EXPECT_EQ(MakeClientSsl(settings, ssl), AW_OK);
    SSL_set_max_proto_version(ssl.get(), version);
    if (ciphers != nullptr) SSL_set_cipher_list(ssl.get(), ciphers);
    clientSsl = ssl.get();
    Make(client, std::move(ssl));
    Make(server_, context.MakeSsl());
  }
  ~Pair() {
    for (Side* side : {&client, &server_})
      if (side->stream) side->stream->Disconnect();
    Drop(client);
    Drop(server_);
    Move();
    loop.FinishLingers();  // of those whose peer has not ended in order
  }
  static void Drop(Side& side) { side.stream = nullptr; }

  void Make(Side& side, SslPtr ssl) {
    side.stream = new TlsStream(loop, std::make_unique<MemoryBytes>(side.end), std::move(ssl));
  }
  void Start(Side& side) {
    side.stream->Start(kLimit, [&side](long reason) {
      side.established = reason;
      ++side.dones;
      if (side.onDone) side.onDone();
    });
  }
  void StartBoth() {
    Start(client);
    Start(server_);
    Move();
  }
  void Open() {
    StartBoth();
    ASSERT_EQ(client.established, 0);
    ASSERT_EQ(server_.established, 0);
    EXPECT_EQ(client.stream->Open(&client.sink), AW_OK);
    EXPECT_EQ(server_.stream->Open(&server_.sink), AW_OK);
    Move();
  }
  // Turns the loop and moves bytes until nothing moves any more.
  void Move() {
    for (bool any = true; any;) {
      any = loop.RunReady();
      any |= MoveOnce(client.end, server_.end);
      any |= MoveOnce(server_.end, client.end);
    }
  }
  static bool MoveOnce(MemoryEnd& from, MemoryEnd& to) {
    if (from.sent.empty() || to.sink == nullptr || to.readingStopped) return false;
    const std::string bytes = std::exchange(from.sent, {});
    for (std::size_t at = 0; at < bytes.size(); at += 65535) to.Arrive(bytes.substr(at, 65535));
    from.MakeRoom(from.room);
    return true;
  }
  static AWResult Send(Side& side, const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    return side.stream->Send(block);
  }

  EventLoop& loop;
  TlsServer context;
  SSL* clientSsl = nullptr;
  Side client;
  Side server_;
};

std::string Pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i >> 8) ^ (i * 7));
  return text;
}

// --- handshake ---

TEST(TlsStream, BothSidesAreToldOnceThatTheHandshakeIsDone) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.StartBoth();
    EXPECT_EQ(pair.client.established, 0);
    EXPECT_EQ(pair.server_.established, 0);
    EXPECT_EQ(pair.client.dones + pair.server_.dones, 2);
  });
}

TEST(TlsStream, NothingIsToldFromInsideStart) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Start(pair.client);
    EXPECT_EQ(pair.client.dones, 0);
    EXPECT_TRUE(pair.client.end.sent.empty());
    pair.Move();
    EXPECT_FALSE(pair.client.end.sent.empty());
  });
}

TEST(TlsStream, HandshakeWorksByteByByte) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
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
    Pair pair(loop);
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
    Pair pair(loop, TLS1_2_VERSION, "ECDHE-RSA-AES256-GCM-SHA384");
    pair.StartBoth();
    EXPECT_EQ(pair.server_.established, AW_SSL_ERROR_NO_COMMON_CIPHER);
    EXPECT_EQ(pair.client.established, AW_SSL_ERROR_REFUSED);
  });
}

TEST(TlsStream, SilentPeerIsGivenUpAfterTheLimit) {
  WithLoop([](EventLoop& loop) {
    keelbase::internal::ManualClock clock;
    Pair pair(loop);
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
    Pair pair(loop);
    pair.Start(pair.client);
    pair.loop.RunReady();
    pair.client.end.End(0);
    EXPECT_EQ(pair.client.established, AW_SSL_ERROR_CUT);
  });
}

TEST(TlsStream, ResetDuringTheHandshakeKeepsItsReason) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Start(pair.client);
    pair.loop.RunReady();
    pair.client.end.End(ECONNRESET);
    EXPECT_EQ(pair.client.established, ECONNRESET);
  });
}

TEST(TlsStream, FailedWriteDuringTheHandshakeIsItsReason) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.client.end.sendResult = EPIPE;
    pair.Start(pair.client);
    pair.loop.RunReady();
    EXPECT_EQ(pair.client.established, EPIPE);
    EXPECT_TRUE(pair.client.end.disconnected);
  });
}

TEST(TlsStream, NothingIsToldAfterDisconnectDuringTheHandshake) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
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
    Pair pair(loop, GetParam());
    pair.Open();
    EXPECT_EQ(Pair::Send(pair.client, "there"), AW_OK);
    EXPECT_EQ(Pair::Send(pair.server_, "back"), AW_OK);
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "there");
    EXPECT_EQ(pair.client.sink.received, "back");
  });
}

TEST_P(TlsStreamVersions, MegabytesArriveUnchangedThroughATightTransport) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop, GetParam());
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
    Pair pair(loop);
    pair.Open();
    keelbase::CAWTransportCounters before;
    pair.client.stream->GetOption(keelbase::AW_OPT_COUNTERS, &before);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(Pair::Send(pair.client, "0123456789"), AW_OK);
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
    Pair pair(loop);
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
    Pair pair(loop);
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
    Pair pair(loop);
    pair.Open();
    std::uint32_t size = 100;
    EXPECT_EQ(pair.server_.stream->SetOption(keelbase::AW_OPT_READ_SIZE, &size), AW_OK);
    Pair::Send(pair.client, Pattern(1000));
    pair.Move();
    EXPECT_EQ(pair.server_.sink.longest, 100U);
    EXPECT_TRUE(pair.server_.sink.received == Pattern(1000));
  });
}

TEST(TlsStream, BytesThatComeBeforeOpenWaitForIt) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.StartBoth();
    pair.client.stream->Open(&pair.client.sink);
    Pair::Send(pair.client, "early");
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

TEST(TlsStream, OpenTakesOneSinkOnce) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.StartBoth();
    EXPECT_EQ(pair.client.stream->Open(nullptr), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.client.stream->Open(&pair.client.sink), AW_OK);
    EXPECT_EQ(pair.client.stream->Open(&pair.client.sink), AW_ERROR_FAILURE);
  });
}

TEST(TlsStream, AnswerToAChangeOfKeysThatFindsNoRoomHoldsNothingUp) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.server_.end.room = 0;
    EXPECT_EQ(SSL_key_update(pair.clientSsl, SSL_KEY_UPDATE_REQUESTED), 1);
    Pair::Send(pair.client, "under the new keys");
    pair.loop.RunReady();
    Pair::MoveOnce(pair.client.end, pair.server_.end);
    EXPECT_EQ(pair.server_.sink.received, "under the new keys");
    Pair::Send(pair.server_, "likewise");
    pair.loop.RunReady();
    pair.server_.end.MakeRoom(100000);
    pair.Move();
    EXPECT_EQ(pair.client.sink.received, "likewise");
    EXPECT_EQ(pair.server_.sink.ends + pair.client.sink.ends, 0);
  });
}

TEST(TlsStream, StoppedReaderGetsNothingUntilItReadsAgain) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    bool stop = true;
    pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    EXPECT_TRUE(pair.server_.end.readingStopped);
    Pair::Send(pair.client, "later");
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
    Pair pair(loop);
    pair.Open();
    bool stop = true;
    pair.server_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    Pair::Send(pair.client, "last words");
    pair.loop.RunReady();
    pair.server_.end.Arrive(std::exchange(pair.client.end.sent, {}));
    pair.server_.end.End(0);
    EXPECT_EQ(pair.server_.sink.received, "last words");
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_CUT);
  });
}

// --- ends ---

TEST_P(TlsStreamVersions, OrderlyEndIsReasonZeroAfterAllBytes) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop, GetParam());
    pair.Open();
    Pair::Send(pair.client, "all of it");
    pair.client.stream->Disconnect();
    pair.Move();
    EXPECT_EQ(pair.server_.sink.received, "all of it");
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, 0);
    EXPECT_EQ(pair.client.sink.ends, 0);
  });
}

TEST(TlsStream, CutWithoutAnnouncementIsAReasonOfItsOwn) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.server_.end.End(0);
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_CUT);
  });
}

TEST(TlsStream, ResetKeepsItsReason) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.server_.end.End(ECONNRESET);
    EXPECT_EQ(pair.server_.sink.reason, ECONNRESET);
  });
}

TEST_P(TlsStreamVersions, GarbageRecordEndsThatConnectionWithAReason) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop, GetParam());
    pair.Open();
    pair.server_.end.Arrive(std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'x'));
    EXPECT_EQ(pair.server_.sink.ends, 1);
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_RECORD);
    EXPECT_TRUE(pair.server_.end.disconnected);
    EXPECT_NE(Pair::Send(pair.server_, "x"), AW_OK);
  });
}

TEST_P(TlsStreamVersions, ChangedByteEndsTheConnectionAfterWhatCameBeforeIt) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop, GetParam());
    pair.Open();
    Pair::Send(pair.client, "good");
    pair.loop.RunReady();
    const std::string good = std::exchange(pair.client.end.sent, {});
    Pair::Send(pair.client, "bad");
    pair.loop.RunReady();
    std::string bad = std::exchange(pair.client.end.sent, {});
    bad.back() = static_cast<char>(bad.back() ^ 1);
    pair.server_.end.Arrive(good + bad);
    EXPECT_EQ(pair.server_.sink.received, "good");
    EXPECT_EQ(pair.server_.sink.reason, AW_SSL_ERROR_RECORD);
  });
}

TEST(TlsStream, RenegotiationCompressionEarlyDataAndOldVersionsAreOff) {
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

TEST(TlsStream, DisconnectAwaitsThePeersEndSoThatNothingIsReset) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    EXPECT_FALSE(pair.client.end.disconnected);
    Pair::Send(pair.server_, "nobody reads this any more");
    pair.loop.RunReady();
    pair.client.end.Arrive(std::exchange(pair.server_.end.sent, {}));
    EXPECT_FALSE(pair.client.end.disconnected);
    pair.client.end.End(0);
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.client.sink.received.empty());
  });
}

TEST(TlsStream, BothSidesMayDisconnectAtOnceAndNobodyWaits) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    pair.server_.stream->Disconnect();
    pair.Move();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStream, PeerThatNeverEndsIsGivenUpAfterTheLinger) {
  WithLoop([](EventLoop& loop) {
    keelbase::internal::ManualClock clock;
    Pair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    Pair::Drop(pair.client);
    clock.Advance(std::chrono::milliseconds(1999));
    pair.loop.RunReady();
    EXPECT_FALSE(pair.client.end.disconnected);
    clock.Advance(std::chrono::milliseconds(2));
    pair.loop.RunReady();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_TRUE(pair.client.end.destroyed);
  });
}

TEST(TlsStream, EndOfTheProcessLeavesTheLingerToTheTransportBelow) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.client.end.room = 0;
    Pair::Send(pair.client, "still to be written");
    pair.client.stream->Disconnect();
    EXPECT_FALSE(pair.client.end.disconnected);
    pair.loop.FinishLingers();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_EQ(pair.client.end.lingerMs, 2000U);
    pair.server_.end.Arrive(pair.client.end.lingerData);
    EXPECT_EQ(pair.server_.sink.received, "still to be written");
    EXPECT_EQ(pair.server_.sink.reason, 0);
  });
}

TEST(TlsStream, AllThatWasTakenIsWrittenAfterDisconnectOnABlockedTransport) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
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

TEST(TlsStream, LingerEndsWhenTheTransportBelowTakesNoMore) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.client.end.room = 10;
    EXPECT_EQ(Pair::Send(pair.client, std::string(200000, 'x')), AW_ERROR_PARTIAL_DATA);
    pair.client.stream->Disconnect();
    EXPECT_FALSE(pair.client.end.disconnected);
    pair.client.end.sendResult = ECONNRESET;
    pair.client.end.MakeRoom(100000);
    EXPECT_TRUE(pair.client.end.disconnected);
  });
}

TEST(TlsStream, LingerOfZeroDropsAtOnceWhatIsNotTaken) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    std::uint32_t none = 0;
    pair.client.stream->SetOption(keelbase::AW_OPT_LINGER, &none);
    pair.client.end.room = 0;
    Pair::Send(pair.client, "lost");
    pair.client.stream->Disconnect();
    EXPECT_TRUE(pair.client.end.disconnected);
    EXPECT_EQ(pair.client.end.lingerMs, 0U);
  });
}

TEST(TlsStream, WhatWasTakenGoesOutAlsoAfterThePeersOrderlyEnd) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    Pair::Send(pair.server_, "answer");
    pair.server_.end.Arrive(std::exchange(pair.client.end.sent, {}));
    EXPECT_EQ(pair.server_.sink.reason, 0);
    pair.server_.stream->Disconnect();
    EXPECT_FALSE(pair.server_.end.sent.empty());
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStream, SendAfterDisconnectAnswers10002) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.client.stream->Disconnect();
    EXPECT_EQ(Pair::Send(pair.client, "x"), AW_ERROR_NOT_INITIALIZED);
  });
}

TEST(TlsStream, FailedWriteIsAnsweredAndTheEndFollowsWhatThePeerHadSent) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    Pair::Send(pair.server_, "sent before");
    pair.loop.RunReady();
    const std::string sent = std::exchange(pair.server_.end.sent, {});
    pair.client.end.sendResult = EPIPE;
    EXPECT_EQ(Pair::Send(pair.client, std::string(20000, 'x')), AWResult{EPIPE});
    EXPECT_EQ(Pair::Send(pair.client, "x"), AWResult{EPIPE});
    EXPECT_EQ(pair.client.sink.ends, 0);
    pair.client.end.Arrive(sent);
    pair.client.end.End(ECONNRESET);
    EXPECT_EQ(pair.client.sink.received, "sent before");
    EXPECT_EQ(pair.client.sink.reason, EPIPE);
  });
}

TEST(TlsStream, NoMemoryInAReceiverEndsTheConnection) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.server_.sink.failMemory = true;
    Pair::Send(pair.client, "x");
    pair.Move();
    EXPECT_EQ(pair.server_.sink.reason, ENOMEM);
    EXPECT_TRUE(pair.server_.end.disconnected);
  });
}

TEST(TlsStream, SinkMayDropTheStreamInsideEachCallback) {
  WithLoop([](EventLoop& loop) {
    for (int where = 0; where < 4; ++where) {
      Pair pair(loop);
      const auto drop = [&pair] {
        pair.server_.stream->Disconnect();
        Pair::Drop(pair.server_);
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
          Pair::Send(pair.server_, std::string(100000, 'x'));
          pair.server_.end.MakeRoom(1 << 20);
        }
        Pair::Send(pair.client, "go");
        pair.client.stream->Disconnect();
      }
      pair.Move();
      EXPECT_FALSE(pair.server_.stream) << where;
    }
  });
}

TEST(TlsStream, SinkMaySendAndCloseInsideAReceive) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop);
    pair.Open();
    pair.server_.sink.onBytes = [&] {
      EXPECT_EQ(Pair::Send(pair.server_, "answer"), AW_OK);
      pair.server_.stream->Disconnect();
    };
    Pair::Send(pair.client, "question");
    pair.Move();
    EXPECT_EQ(pair.client.sink.received, "answer");
    EXPECT_EQ(pair.client.sink.reason, 0);
  });
}

// --- what was agreed ---

TEST_P(TlsStreamVersions, InfoTellsProtocolAndPeer) {
  WithLoop([](EventLoop& loop) {
    Pair pair(loop, GetParam());
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
    Pair pair(loop);
    pair.Open();
    int value = 0;
    EXPECT_EQ(pair.client.stream->GetOption(9999, &value), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.client.stream->GetOption(AW_OPT_SSL_INFO, nullptr), AW_ERROR_FAILURE);
    EXPECT_EQ(pair.client.stream->SetOption(keelbase::AW_OPT_LINGER, nullptr), AW_ERROR_FAILURE);
  });
}

}  // namespace
}  // namespace sslutils::internal
