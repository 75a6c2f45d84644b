// Transport_test.cpp - opening and receiving, which all transports do alike. What is particular to
// one is tested with its library.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "Transports.h"

namespace zarn::test {
namespace {

template <class Connection>
class Transport : public ::testing::Test {};
TYPED_TEST_SUITE(Transport, AllTransports, TransportNames);

template <class Connection>
class LocalTransport : public ::testing::Test {};
TYPED_TEST_SUITE(LocalTransport, LocalTransports, TransportNames);

// --- opening ---

TYPED_TEST(Transport, BytesGoBothWays) {
  TypeParam c;
  c.Open();
  EXPECT_EQ(c.Send("to the peer"), AW_OK);
  EXPECT_EQ(c.peer.Send("from the peer"), 13U);
  EXPECT_EQ(c.sink.received, "");  // never from inside an operation
  EXPECT_EQ(c.ReceiveBytes(11), "to the peer");
  EXPECT_TRUE(Await([&] { return c.sink.received == "from the peer"; }));
}

TYPED_TEST(Transport, EarlyBytesWaitForTheOpen) {
  TypeParam c;
  c.peer.Send("early");
  Turn();
  c.Open();
  EXPECT_EQ(c.sink.received, "");  // not from inside
  EXPECT_TRUE(Await([&] { return c.sink.received == "early"; }));
}

TYPED_TEST(Transport, BytesMayBeSentBeforeTheOpen) {
  TypeParam c;
  EXPECT_EQ(c.Send("early"), AW_OK);
  EXPECT_EQ(c.ReceiveBytes(5), "early");
  c.Open();
  c.peer.Send("answer");
  EXPECT_TRUE(Await([&] { return c.sink.received == "answer"; }));
}

TYPED_TEST(Transport, SecondOpenAndNullSinkAreMisuse) {
  TypeParam c;
  EXPECT_EQ(c.transport->OpenWithSink(nullptr), AW_ERROR_FAILURE);
  c.Open();
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_ERROR_FAILURE);
  typename TypeParam::Sink other;
  EXPECT_EQ(c.transport->OpenWithSink(&other), AW_ERROR_FAILURE);
  c.peer.Send("x");
  EXPECT_TRUE(Await([&] { return c.sink.received == "x"; }));
  EXPECT_EQ(other.received, "");
}

TYPED_TEST(Transport, OpenAfterDisconnectAndAfterTheEndIsMisuse) {
  {
    TypeParam c;
    EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
    EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_ERROR_FAILURE);
  }
  TypeParam c;
  c.Open();
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_ERROR_FAILURE);
}

TYPED_TEST(Transport, OpenOnADeadConnectionIsFollowedByItsEnd) {
  TypeParam c;
  c.peer.Send("last words");
  c.peer.Close();
  Turn();
  c.Open();
  EXPECT_FALSE(c.sink.ended);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "last words");
  EXPECT_EQ(c.sink.reason, 0);
}

TYPED_TEST(Transport, SendingBeforeTheOpenSurvivesThePeersEnd) {
  TypeParam c;
  c.Fill(60000);
  c.peer.Send("unread");
  RunReady();
  c.peer.Close();
  for (int i = 0; i < 5; ++i) Turn();
  c.Open();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "unread");
}

TYPED_TEST(Transport, RoomThatCameBeforeTheOpenIsToldAfterIt) {
  TypeParam c;
  const std::string sent = c.Fill(60000);
  EXPECT_TRUE(c.ReceiveBytes(sent.size()) == sent);
  Turn();
  c.Open();
  EXPECT_TRUE(Await([&] { return c.sink.sends == 1; }));
}

// --- reading ---

// Sends more than one event brings, to a sink that is not yet open.
template <class Connection>
void ExpectEventsOfAtMost(Connection& c, std::size_t most) {
  std::size_t largest = 0;
  std::size_t before = 0;
  c.sink.onReceive = [&](auto*) {
    largest = std::max(largest, c.sink.received.size() - before);
    before = c.sink.received.size();
  };
  c.Open();
  const std::string text = Pattern(most == 1 ? 1000 : 2000000);
  std::size_t sent = 0;
  EXPECT_TRUE(Await([&] {
    if (sent < text.size()) sent += c.peer.Send(text.substr(sent, 300000));
    return c.sink.received.size() == text.size();
  }));
  EXPECT_TRUE(c.sink.received == text);
  EXPECT_LE(largest, most);
  if (Connection::kArrivesWhole) {
    EXPECT_EQ(largest, most);
  }
  EXPECT_EQ(c.Counters().bytesReceived, text.size());
  EXPECT_EQ(c.Counters().blocksReceived, static_cast<std::uint64_t>(c.sink.receives));
}

TYPED_TEST(Transport, OneEventHoldsAtMost65535BytesAndNothingIsLost) {
  TypeParam c;
  ExpectEventsOfAtMost(c, 65535);
}

TYPED_TEST(Transport, OneEventHoldsAtMostTheReadSize) {
  for (const std::uint32_t most : {1U, 1000U, 65535U, 0U, 1000000U}) {
    TypeParam c;
    c.Set(keelbase::AW_OPT_READ_SIZE, most);
    ExpectEventsOfAtMost(c, std::clamp(most, 1U, 65535U));
  }
}

template <class Connection>
class KeepingSink final : public Connection::Sink::Interface {
 public:
  ~KeepingSink() override {
    for (CAWMessageBlock* block : kept) block->DestroyChained();
  }
  void OnReceive(CAWMessageBlock& data, typename Connection::Transport*,
                 typename Connection::Parameter*) override {
    kept.push_back(data.DuplicateChained());
  }
  void OnSend(typename Connection::Transport*, typename Connection::Parameter*) override {}
  void OnDisconnect(long, typename Connection::Transport*) override {}
  std::vector<CAWMessageBlock*> kept;
};

TYPED_TEST(Transport, ReceivedBytesMayBeKept) {
  TypeParam c;
  KeepingSink<TypeParam> sink;
  c.transport->OpenWithSink(&sink);
  for (std::size_t i = 0; i < 5; ++i) {
    c.peer.Send("message " + std::to_string(i));
    EXPECT_TRUE(Await([&] { return sink.kept.size() == i + 1; }));
  }
  for (std::size_t i = 0; i < 5; ++i)
    EXPECT_EQ(sink.kept[i]->FlattenChained(), "message " + std::to_string(i));
  c.transport->Disconnect(0);
}

TYPED_TEST(Transport, StoppedReadingLetsBytesWait) {
  for (const bool beforeTheOpen : {false, true}) {
    TypeParam c;
    if (beforeTheOpen) c.StopReading(true);
    c.Open();
    if (!beforeTheOpen) c.StopReading(true);
    const std::string text = Pattern(100000);
    const std::size_t sent = c.peer.Send(text);
    Turn();
    EXPECT_EQ(c.sink.received, "");
    c.StopReading(false);
    EXPECT_TRUE(Await([&] { return c.sink.received == text.substr(0, sent); }));
  }
}

TYPED_TEST(Transport, EndIsNoticedWhileReadingIsStoppedAndTheRestComesFirst) {
  TypeParam c;
  c.Open();
  c.StopReading(true);
  const std::string text = Pattern(100000);
  const std::size_t sent = c.peer.Send(text);
  Turn();
  EXPECT_EQ(c.sink.received, "");
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_TRUE(c.sink.received == text.substr(0, sent));
  EXPECT_EQ(c.sink.reason, 0);
}

TYPED_TEST(Transport, TheRestBeforeTheEndComesWholeInShortReadsToo) {
  TypeParam c;
  c.Set(keelbase::AW_OPT_READ_SIZE, std::uint32_t{16});
  c.Open();
  c.StopReading(true);
  const std::string text = Pattern(100000);
  const std::size_t sent = c.peer.Send(text);
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_TRUE(c.sink.received == text.substr(0, sent));
}

TYPED_TEST(Transport, ReadingMayBeStoppedInsideTheEvent) {
  TypeParam c;
  c.Set(keelbase::AW_OPT_READ_SIZE, std::uint32_t{40000});
  c.sink.onReceive = [&](auto*) { c.StopReading(true); };
  c.Open();
  const std::size_t sent = c.peer.Send(Pattern(100000));
  EXPECT_TRUE(Await([&] { return c.sink.receives == 1; }));
  Turn();
  EXPECT_EQ(c.sink.receives, 1);
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_TRUE(c.sink.received == Pattern(sent));
}

// --- options ---

TYPED_TEST(Transport, UnknownOptionsAndNullAreRefused) {
  TypeParam c;
  std::uint64_t value = 1;
  for (const int code : {0, 9999, -1}) {
    EXPECT_EQ(c.transport->GetOption(code, &value), AW_ERROR_FAILURE) << code;
    EXPECT_EQ(c.transport->SetOption(code, &value), AW_ERROR_FAILURE) << code;
  }
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_COUNTERS, &value), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->GetOption(keelbase::AW_OPT_LINGER, &value), AW_ERROR_FAILURE);
  for (const int code : {keelbase::AW_OPT_LOCAL_ADDRESS, keelbase::AW_OPT_PEER_ADDRESS,
                         keelbase::AW_OPT_COUNTERS, keelbase::AW_OPT_PEER_CREDENTIALS})
    EXPECT_EQ(c.transport->GetOption(code, nullptr), AW_ERROR_FAILURE) << code;
  for (const int code : {keelbase::AW_OPT_STOP_READING, keelbase::AW_OPT_LINGER,
                         keelbase::AW_OPT_LINGER_DATA, keelbase::AW_OPT_READ_SIZE})
    EXPECT_EQ(c.transport->SetOption(code, nullptr), AW_ERROR_FAILURE) << code;
}

TYPED_TEST(LocalTransport, CredentialsAreThoseOfThePeer) {
  TypeParam c;
  keelbase::CAWPeerCredentials who;
  EXPECT_EQ(c.transport->GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, &who), AW_OK);
  EXPECT_EQ(who.processId, ::getpid());
  EXPECT_EQ(who.userId, ::geteuid());
  EXPECT_EQ(who.groupId, ::getegid());
}

}  // namespace
}  // namespace zarn::test
