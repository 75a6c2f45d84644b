// Transport_send_test.cpp - sending, which all transports do alike: partial sends, order, counters,
// and what happens to taken bytes when a connection is closed.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>

#include "Transports.h"

namespace zarn::test {
namespace {

template <class Connection>
class TransportSend : public ::testing::Test {};
TYPED_TEST_SUITE(TransportSend, AllTransports, TransportNames);

template <class Connection>
class SocketTransportSend : public ::testing::Test {};
TYPED_TEST_SUITE(SocketTransportSend, SocketTransports, TransportNames);

template <class Connection>
class LocalTransportSend : public ::testing::Test {};
TYPED_TEST_SUITE(LocalTransportSend, LocalTransports, TransportNames);

// --- gathering ---

TYPED_TEST(TransportSend, SmallSendsOfATurnAreOneSystemCallAtMost) {
  TypeParam c;
  c.Open();
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = "message " + std::to_string(i) + ";";
    EXPECT_EQ(c.Send(text), AW_OK);
    expected += text;
  }
  EXPECT_EQ(c.Counters().systemCallsSent, 0U);
  EXPECT_EQ(c.Counters().queuedBytes, TypeParam::kGathers ? expected.size() : 0U);
  RunReady();
  EXPECT_GE(c.Counters().systemCallsSent, TypeParam::kGathers ? 1U : 0U);
  EXPECT_LE(c.Counters().systemCallsSent, 1U);
  EXPECT_EQ(c.Counters().blocksSent, 1000U);
  EXPECT_EQ(c.Counters().bytesSent, expected.size());
  EXPECT_EQ(c.Counters().queuedBytes, 0U);
  EXPECT_EQ(c.ReceiveBytes(expected.size()), expected);
  EXPECT_LE(c.Counters().systemCallsSent, 1U);
}

TYPED_TEST(SocketTransportSend, GatheredBytesAreWrittenWhenTheBufferIsFull) {
  TypeParam c;
  c.Open();
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = Pattern(100, expected.size());
    EXPECT_EQ(c.Send(text), AW_OK);
    expected += text;
  }
  EXPECT_EQ(c.Counters().systemCallsSent, 1U);
  EXPECT_EQ(c.ReceiveBytes(expected.size()), expected);
  EXPECT_EQ(c.Counters().systemCallsSent, 2U);
  EXPECT_LE(c.Counters().queuedHighMark, 65536U);
}

TYPED_TEST(SocketTransportSend, LargeChainTakesWhatWasGatheredAlong) {
  TypeParam c;
  c.Open();
  EXPECT_EQ(c.Send("first "), AW_OK);
  CAWMessageBlock head("head ", 5, CAWMessageBlock::borrow);
  const std::string body = Pattern(65000);
  CAWMessageBlock payload(body.data(), body.size(), CAWMessageBlock::borrow);
  const CAWMessageBlock::LinkForCall link(head, payload);
  EXPECT_EQ(c.transport->SendData(head, nullptr), AW_OK);
  EXPECT_EQ(c.Counters().systemCallsSent, 1U);
  EXPECT_EQ(head.GetChainedLength(), 0U);
  EXPECT_EQ(c.ReceiveBytes(65011), "first head " + body);
}

TYPED_TEST(SocketTransportSend, SlowReaderCostsTheTransportNoMoreThanItsGatherBuffer) {
  TypeParam c;
  c.Open();
  const std::string text = Pattern(5000);
  for (int i = 0; i < 10000; ++i) c.Send(text);
  EXPECT_LE(c.Counters().queuedHighMark, 65536U);
  EXPECT_LE(c.Counters().queuedBytes, 65536U);
}

TYPED_TEST(TransportSend, SentBlocksBelongToTheCallerAgainAtOnce) {
  TypeParam c;
  c.Open();
  std::string text = "before";
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(c.transport->SendData(block, nullptr), AW_OK);
  text.assign("AFTER!");
  EXPECT_EQ(c.ReceiveBytes(6), "before");
}

TYPED_TEST(TransportSend, NothingIsTakenAndSentAsNothing) {
  TypeParam c;
  c.Open();
  CAWMessageBlock empty(10);
  typename TypeParam::Parameter parameter;
  EXPECT_EQ(c.transport->SendData(empty, &parameter), AW_OK);
  RunReady();
  EXPECT_EQ(c.Counters().systemCallsSent, 0U);
  c.Fill();
  EXPECT_EQ(c.Send(""), AW_OK);
}

TYPED_TEST(TransportSend, ChainOfManyBlocksIsWrittenWhole) {
  TypeParam c;
  c.Open();
  CAWMessageBlock head(0);
  CAWMessageBlock* last = &head;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    const std::string text = Pattern(100, expected.size());
    last->Append(new CAWMessageBlock(text.size()));
    last = last->GetNext();
    EXPECT_EQ(last->Write(text.data(), text.size()), AW_OK);
    expected += text;
  }
  EXPECT_EQ(c.transport->SendData(head, nullptr), AW_OK);
  EXPECT_EQ(c.ReceiveBytes(expected.size()), expected);
  EXPECT_LE(c.Counters().systemCallsSent, 10U);
}

TYPED_TEST(TransportSend, CountersCountBothWays) {
  TypeParam c;
  c.Open();
  c.Send("12345");
  c.Send("678");
  EXPECT_EQ(c.ReceiveBytes(8), "12345678");
  EXPECT_EQ(c.Counters().blocksSent, 2U);
  EXPECT_EQ(c.Counters().bytesSent, 8U);
  EXPECT_EQ(c.Counters().bytesReceived, 0U);
  c.peer.Send("9");
  EXPECT_TRUE(Await([&] { return c.sink.received == "9"; }));
  EXPECT_EQ(c.Counters().bytesReceived, 1U);
  EXPECT_EQ(c.Counters().blocksReceived, 1U);
  EXPECT_EQ(c.Counters().partialSends, 0U);
}

// --- partial sends ---

TYPED_TEST(TransportSend, LargeSendStopsAtTheFirstByteThatWasNotTakenAndIsFollowedByOneOnSend) {
  TypeParam c;
  c.Open();
  const std::string text = Pattern(20000000);
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  ASSERT_EQ(c.transport->SendData(block, nullptr), AW_ERROR_PARTIAL_DATA);
  const auto taken = static_cast<std::size_t>(block.GetReadPtr() - text.data());
  EXPECT_GT(taken, 0U);
  EXPECT_LT(taken, text.size());
  EXPECT_EQ(c.sink.sends, 0);  // not from inside
  std::string got;
  EXPECT_TRUE(Await([&] {
    got += c.peer.Receive();
    return c.sink.sends != 0 && got.size() >= taken;
  }));
  EXPECT_TRUE(got == text.substr(0, taken));
  Turn();
  EXPECT_EQ(c.sink.sends, 1);
  EXPECT_EQ(c.Counters().partialSends, 1U);

  c.sink.onSend = [&](auto* transport) { transport->SendData(block, nullptr); };
  c.transport->SendData(block, nullptr);
  EXPECT_TRUE(Await([&] {
    got += c.peer.Receive();
    return got.size() == text.size();
  }));
  EXPECT_TRUE(got == text);
}

TYPED_TEST(TransportSend, ManyRefusalsAreOneRoom) {
  TypeParam c;
  c.Open();
  c.Fill(1000);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(c.Send(Pattern(1000)), AW_ERROR_PARTIAL_DATA);
    EXPECT_EQ(c.Send(Pattern(100000)), AW_ERROR_PARTIAL_DATA);
  }
  Turn();
  EXPECT_EQ(c.sink.sends, 0);
  EXPECT_TRUE(Await([&] {
    c.peer.Receive();
    return c.sink.sends != 0;
  }));
  for (int i = 0; i < 20; ++i) {
    c.peer.Receive();
    RunReady();
  }
  EXPECT_EQ(c.sink.sends, 1);
}

TYPED_TEST(TransportSend, NoRoomIsToldThatNobodyAskedFor) {
  TypeParam c;
  c.Open();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(c.Send(Pattern(60000)), AW_OK);
    EXPECT_EQ(c.ReceiveBytes(60000).size(), 60000U);
    Turn();
  }
  EXPECT_EQ(c.sink.sends, 0);
}

// A sender as streams are: keeps the chain, goes on when there is room.
TYPED_TEST(TransportSend, NothingIsLostOrReorderedWhateverTheSizes) {
  const std::string all = Pattern(3000000);
  for (std::uint32_t seed = 0; seed < 10; ++seed) {
    std::mt19937 random(seed);
    TypeParam c;
    c.Open();
    std::size_t at = 0;
    bool room = true;
    c.sink.onSend = [&](auto*) { room = true; };
    std::string got;
    EXPECT_TRUE(Await([&] {
      for (auto i = random() % 30; room && i > 0 && at < all.size(); --i) {
        static constexpr std::size_t kMaxSizes[] = {10, 300, 4096, 5000, 20000, 70000, 400000};
        const std::size_t size = std::min(all.size() - at, 1 + random() % kMaxSizes[random() % 7]);
        CAWMessageBlock head(all.data() + at, size / 3, CAWMessageBlock::borrow);
        CAWMessageBlock tail(all.data() + at + size / 3, size - size / 3, CAWMessageBlock::borrow);
        const CAWMessageBlock::LinkForCall link(head, tail);
        const AWResult result = c.transport->SendData(head, nullptr);
        EXPECT_TRUE(result == AW_OK || result == AW_ERROR_PARTIAL_DATA);
        EXPECT_EQ(result == AW_OK, head.GetChainedLength() == 0);
        at += size - head.GetChainedLength();
        room = result == AW_OK;
      }
      got += c.peer.Receive(static_cast<std::uint32_t>(1 + random() % 70000));
      return got.size() == all.size();
    }));
    EXPECT_TRUE(got == all) << "seed " << seed;
  }
}

// --- closing with bytes on their way ---

TYPED_TEST(TransportSend, TakenBytesAreWrittenAfterDisconnect) {
  TypeParam c;
  c.Open();
  const std::string expected = c.Fill(1000);
  EXPECT_EQ(c.Counters().queuedBytes != 0, TypeParam::kGathers);
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  c.transport = nullptr;
  EXPECT_TRUE(c.ReceiveAll() == expected);
  EXPECT_EQ(c.peer.error, 0);
  EXPECT_EQ(c.sink.sends, 0);
}

TYPED_TEST(TransportSend, LingerDataFollowsWhatWasTaken) {
  TypeParam c;
  c.Open();
  const std::string expected = c.Fill(1000);
  const std::string rest = Pattern(2000000, expected.size());
  {
    CAWMessageBlock chain(rest.data(), 1000000, CAWMessageBlock::borrow);
    auto* second = new CAWMessageBlock(1000000);
    EXPECT_EQ(second->Write(rest.data() + 1000000, 1000000), AW_OK);
    chain.Append(second);
    EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &chain), AW_OK);
    EXPECT_EQ(chain.GetChainedLength(), rest.size());
  }
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  CAWMessageBlock late("x", 1, CAWMessageBlock::borrow);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &late), AW_ERROR_NOT_INITIALIZED);
  c.transport = nullptr;
  EXPECT_TRUE(c.ReceiveAll() == expected + rest);
  EXPECT_EQ(c.peer.error, 0);
  EXPECT_EQ(c.sink.sends, 0);
}

TYPED_TEST(TransportSend, LingerDataThatFitsIsWrittenAtOnce) {
  TypeParam c;
  c.Open();
  c.Send("taken, ");
  CAWMessageBlock one("one, ", 5, CAWMessageBlock::borrow);
  CAWMessageBlock two("two", 3, CAWMessageBlock::borrow);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &one), AW_OK);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &two), AW_OK);
  c.transport->Disconnect(0);
  EXPECT_EQ(c.ReceiveAll(), "taken, one, two");
}

// Bytes that are taken, and more that find no room; how many of them the peer can get all the same.
template <class Connection>
std::string FillAndLinger(Connection& c) {
  const std::string sent = c.Fill(1000);
  const std::string more = Pattern(100000, sent.size());
  CAWMessageBlock block(more.data(), more.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block), AW_OK);
  return sent.substr(0, c.Counters().bytesSent);
}

TYPED_TEST(TransportSend, LingerOfZeroDropsWhatFindsNoRoom) {
  TypeParam c;
  c.Open();
  const std::string written = FillAndLinger(c);
  c.Set(keelbase::AW_OPT_LINGER, std::uint32_t{0});
  c.transport->Disconnect(0);
  EXPECT_TRUE(c.ReceiveAll() == written);
}

TYPED_TEST(LocalTransportSend, LingerEndsWithItsTime) {
  HandClock clock;
  TypeParam c;
  c.Open();
  const std::string written = FillAndLinger(c);
  c.transport->Disconnect(0);
  clock.Advance(std::chrono::milliseconds(1999));
  EXPECT_FALSE(c.peer.HasEnded());
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(Await([&] { return c.peer.HasEnded(); }));
  EXPECT_TRUE(c.ReceiveAll() == written);
}

TYPED_TEST(TransportSend, LingerEndsWhenThePeerGoes) {
  TypeParam c;
  c.Open();
  FillAndLinger(c);
  c.transport->Disconnect(0);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, nullptr), AW_ERROR_FAILURE);
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.Counters().queuedBytes == 0; }));
  EXPECT_FALSE(c.peer.HasEnded());
}

}  // namespace
}  // namespace zarn::test
