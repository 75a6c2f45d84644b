// ShmIPCTransport_send_test.cpp - sending: partial sends, order, counters, and what happens to
// bytes when a connection is closed.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include "ChildTest.h"
#include "RealShmIpc.h"
#include "keelbase/CAWHash.h"
#include "keelbase/internal/TimerQueue.h"

namespace fshmipc {
namespace {

using namespace zarn::test;

TEST(ShmIPCTransportSend, FullRingTakesPartAndTellsOfRoomOnce) {
  ShmPair p;
  p.client.Open();
  const std::string text = Pattern(100000);
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(p.client.transport->SendData(block, nullptr), AW_ERROR_PARTIAL_DATA);
  EXPECT_EQ(block.GetLength(), text.size() - kLeastShmRing);
  EXPECT_EQ(block.GetReadPtr(), text.data() + kLeastShmRing);
  EXPECT_EQ(p.client.transport->SendData(block, nullptr), AW_ERROR_PARTIAL_DATA);
  EXPECT_EQ(block.GetLength(), text.size() - kLeastShmRing);  // nothing of it this time
  Turn();
  EXPECT_EQ(p.client.sink.sends, 0);
  p.server.Open();
  EXPECT_TRUE(Await([&] { return p.client.sink.sends == 1; }));
  Turn();
  EXPECT_EQ(p.client.sink.sends, 1);
  EXPECT_EQ(p.client.transport->SendData(block, nullptr), AW_OK);
  EXPECT_TRUE(Await([&] { return p.server.sink.received.size() == text.size(); }));
  EXPECT_TRUE(p.server.sink.received == text);
  EXPECT_EQ(p.client.Counters().partialSends, 2U);
}

TEST(ShmIPCTransportSend, RoomIsToldWhenHalfTheRingIsFree) {
  ShmPair p;
  p.Open();
  p.server.Set(keelbase::AW_OPT_READ_SIZE, std::uint32_t{1000});
  std::size_t freeAtRoom = 0;
  p.client.sink.onSend = [&](IAWShmIPCTransport*) { freeAtRoom = p.server.sink.received.size(); };
  p.client.Fill();
  EXPECT_TRUE(Await([&] { return p.client.sink.sends == 1; }));
  EXPECT_GE(freeAtRoom, kLeastShmRing / 2);
}

TEST(ShmIPCTransportSend, NoRoomIsToldThatNobodyAskedFor) {
  ShmPair p;
  p.Open();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(p.client.Send(Pattern(60000)), AW_OK);
    Turn();
  }
  EXPECT_EQ(p.client.sink.sends, 0);
}

TEST(ShmIPCTransportSend, NothingToSendIsTaken) {
  ShmPair p;
  p.Open();
  EXPECT_EQ(p.client.Send(""), AW_OK);
  p.client.Fill();
  EXPECT_EQ(p.client.Send(""), AW_OK);
  EXPECT_EQ(p.client.Counters().bytesSent, kLeastShmRing);
}

TEST(ShmIPCTransportSend, SmallSendsOfATurnAreOneWakeUpAtMost) {
  ShmPair p;
  p.Open();
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = "message " + std::to_string(i) + ";";
    EXPECT_EQ(p.client.Send(text), AW_OK);
    expected += text;
  }
  EXPECT_EQ(p.client.Counters().systemCallsSent, 0U);
  EXPECT_TRUE(Await([&] { return p.server.sink.received == expected; }));
  EXPECT_LE(p.client.Counters().systemCallsSent, 1U);
}

TEST(ShmIPCTransportSend, CountersCountBothWays) {
  ShmPair p;
  p.Open();
  p.client.Send("12345");
  p.client.Send("678");
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "12345678"; }));
  EXPECT_EQ(p.client.Counters().blocksSent, 2U);
  EXPECT_EQ(p.client.Counters().bytesSent, 8U);
  EXPECT_EQ(p.client.Counters().bytesReceived, 0U);
  EXPECT_EQ(p.server.Counters().bytesReceived, 8U);
  EXPECT_EQ(p.server.Counters().blocksReceived, static_cast<std::uint64_t>(p.server.sink.receives));
  EXPECT_EQ(p.client.Counters().partialSends, 0U);
}

// A sender as streams are: keeps the chain, goes on when there is room.
TEST(ShmIPCTransportSend, NothingIsLostOrReorderedWhateverTheSizes) {
  for (std::uint32_t seed = 0; seed < 6; ++seed) {
    std::mt19937 random(seed);
    ShmPair p(seed % 2 == 0 ? kLeastShmRing : 256 * 1024);
    p.Open();
    const std::string all = Pattern(2000000);
    std::size_t at = 0;
    bool room = true;
    p.client.sink.onSend = [&](IAWShmIPCTransport*) { room = true; };
    EXPECT_TRUE(Await([&] {
      for (auto i = random() % 30; room && i > 0 && at < all.size(); --i) {
        static constexpr std::size_t kLargest[] = {10, 300, 4096, 20000, 70000, 400000};
        const std::size_t size = std::min(all.size() - at, 1 + random() % kLargest[random() % 6]);
        CAWMessageBlock head(all.data() + at, size / 3, CAWMessageBlock::borrow);
        CAWMessageBlock tail(all.data() + at + size / 3, size - size / 3, CAWMessageBlock::borrow);
        const CAWMessageBlock::LinkForCall link(head, tail);
        const AWResult result = p.client.transport->SendData(head, nullptr);
        EXPECT_TRUE(result == AW_OK || result == AW_ERROR_PARTIAL_DATA);
        EXPECT_EQ(result == AW_OK, head.GetChainedLength() == 0);
        at += size - head.GetChainedLength();
        room = result == AW_OK;
      }
      p.server.Set(keelbase::AW_OPT_READ_SIZE, static_cast<std::uint32_t>(random() % 70000));
      return p.server.sink.received.size() == all.size();
    }));
    EXPECT_TRUE(p.server.sink.received == all) << "seed " << seed;
  }
}

// --- closing with bytes on their way ---

TEST(ShmIPCTransportSend, LingerDataFollowsWhatWasTaken) {
  ShmPair p;
  p.client.Open();
  std::string expected = p.client.Fill();
  const std::string rest = Pattern(400000, expected.size());
  {
    CAWMessageBlock chain(rest.data(), 100000, CAWMessageBlock::borrow);
    auto* second = new CAWMessageBlock(300000);
    EXPECT_EQ(second->Write(rest.data() + 100000, 300000), AW_OK);
    chain.Append(second);
    EXPECT_EQ(p.client.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &chain), AW_OK);
    EXPECT_EQ(chain.GetChainedLength(), rest.size());
  }
  EXPECT_EQ(p.client.transport->Disconnect(0), AW_OK);
  CAWMessageBlock late("x", 1, CAWMessageBlock::borrow);
  EXPECT_EQ(p.client.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &late),
            AW_ERROR_NOT_INITIALIZED);
  p.client.transport = nullptr;
  Turn();
  p.server.Open();
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_TRUE(p.server.sink.received == expected + rest);
  EXPECT_EQ(p.server.sink.reason, 0);
  EXPECT_EQ(p.client.sink.sends, 0);
}

TEST(ShmIPCTransportSend, LingerDataThatFitsIsWrittenAtOnce) {
  ShmPair p;
  p.Open();
  p.client.Send("taken, ");
  CAWMessageBlock one("one, ", 5, CAWMessageBlock::borrow);
  CAWMessageBlock two("two", 3, CAWMessageBlock::borrow);
  EXPECT_EQ(p.client.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &one), AW_OK);
  EXPECT_EQ(p.client.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &two), AW_OK);
  p.client.transport->Disconnect(0);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.sink.received, "taken, one, two");
}

void FillAndLinger(ShmEnd& end, std::string& sent) {
  sent = end.Fill();
  const std::string more = Pattern(100000, sent.size());
  CAWMessageBlock block(more.data(), more.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(end.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block), AW_OK);
}

TEST(ShmIPCTransportSend, LingerOfZeroDropsWhatFindsNoRoom) {
  ShmPair p;
  p.client.Open();
  std::string sent;
  FillAndLinger(p.client, sent);
  p.client.Set(keelbase::AW_OPT_LINGER, std::uint32_t{0});
  p.client.transport->Disconnect(0);
  p.server.Open();
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_TRUE(p.server.sink.received == sent);
}

TEST(ShmIPCTransportSend, LingerEndsWithItsTime) {
  HandClock clock;
  ShmPair p;
  p.Open();
  p.server.Set(keelbase::AW_OPT_STOP_READING, true);
  std::string sent;
  FillAndLinger(p.client, sent);
  p.client.transport->Disconnect(0);
  clock.Advance(std::chrono::milliseconds(1999));
  EXPECT_FALSE(p.server.sink.ended);
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_TRUE(p.server.sink.received == sent);
}

TEST(ShmIPCTransportSend, LingerEndsWhenThePeerGoes) {
  ShmPair p;
  p.Open();
  p.server.Set(keelbase::AW_OPT_STOP_READING, true);
  std::string sent;
  FillAndLinger(p.client, sent);
  CAWAutoPtr<IAWShmIPCTransport> closing = p.client.transport;
  p.client.transport->Disconnect(0);
  EXPECT_EQ(closing->SetOption(keelbase::AW_OPT_LINGER_DATA, nullptr), AW_ERROR_FAILURE);
  p.server.transport->Disconnect(0);
  Turn();
  EXPECT_FALSE(p.server.sink.ended);
}

TEST(ShmIPCTransportSend, BothMayLingerForEachOther) {
  ShmPair p;
  std::string byClient;
  std::string byServer;
  FillAndLinger(p.client, byClient);
  FillAndLinger(p.server, byServer);
  p.client.transport->Disconnect(0);
  p.server.transport->Disconnect(0);  // neither reads any more: they end with their time
  HandClock clock;
  clock.Advance(std::chrono::milliseconds(2100));
  Turn();
}

// --- closing and ending the process ---

std::string ExitText() { return Pattern(3000000); }

// In a child: sends as a stream would, closes and ends.
void RunExitingChild() {
  CAWShmIPCManager::Instance()->SetSystemPath(ChildTest::Argument());
  static CAWAutoPtr<IAWShmIPCConnector> connector = MakeShmConnector();
  static ShmIndicationSink sink;
  static ShmTransportSink events;
  sink.keep = false;
  sink.onIndication = [](IAWShmIPCTransport* transport) {
    if (transport == nullptr) std::exit(9);
    transport->OpenWithSink(&events);
    const std::string all = ExitText();
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    transport->SendData(block, nullptr);
    if (transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block) != AW_OK) std::exit(8);
    transport->Disconnect(0);
    if (ChildTest::Role() == "inside") std::exit(0);
  };
  if (connector->AsyncConnect(&sink, kShmServer, 0, nullptr) != AW_OK) std::exit(7);
  Await([] { return sink.count == 1; });
  std::exit(0);
}

TEST(ShmIPCTransportSend, ProcessThatClosesAndEndsLosesNothing) {
  if (!ChildTest::Role().empty()) RunExitingChild();
  for (const char* role : {"outside", "inside"}) {
    const ShmSystem system;
    ShmServer server;
    ChildTest child(role, system.GetPath());
    ShmEnd end{server.Accept(), {}};
    end.Open();
    EXPECT_TRUE(Await([&] { return end.sink.ended; }));
    EXPECT_EQ(end.sink.reason, 0);
    EXPECT_TRUE(end.sink.received == ExitText()) << role << " " << end.sink.received.size();
    EXPECT_EQ(child.Wait(), 0) << role << child.GetErrors();
  }
}

// --- two loops in one process, each running on a thread of its own ---

// Sends `count` messages of random sizes, each with its length and hash in front.
class Talker final : public IAWShmIPCTransportSink {
 public:
  Talker(CAWAutoPtr<IAWShmIPCTransport> transport, std::uint32_t seed, int count)
      : transport_(std::move(transport)), random_(seed), left_(count), expected_(count) {}

  void Start() {
    EXPECT_EQ(transport_->OpenWithSink(this), AW_OK);
    SendMore();
  }
  void OnReceive(CAWMessageBlock& data, IAWShmIPCTransport*,
                 CAWShmIPCTransportParameter*) override {
    input_ += data.FlattenChained();
    std::size_t at = 0;
    for (std::uint32_t head[2]; input_.size() - at >= sizeof head;) {
      std::memcpy(head, input_.data() + at, sizeof head);
      if (input_.size() - at - sizeof head < head[0]) break;
      at += sizeof head;
      if (keelbase::hash_bytes(input_.data() + at, head[0], head[0]) != head[1]) ++wrong;
      at += head[0];
      ++received;
    }
    input_.erase(0, at);
  }
  void OnSend(IAWShmIPCTransport*, CAWShmIPCTransportParameter*) override { SendMore(); }
  void OnDisconnect(long, IAWShmIPCTransport*) override { ended = true; }
  bool IsDone() const { return (left_ == 0 && output_.empty() && received == expected_) || ended; }
  void Close() { transport_ = nullptr; }

  int received = 0;
  int wrong = 0;
  bool ended = false;

 private:
  void SendMore() {
    while (left_ != 0 || !output_.empty()) {
      if (output_.empty()) MakeMessage();
      CAWMessageBlock block(output_.data(), output_.size(), CAWMessageBlock::borrow);
      const AWResult result = transport_->SendData(block, nullptr);
      output_.erase(0, output_.size() - block.GetLength());
      if (result != AW_OK) return;
    }
  }
  void MakeMessage() {
    --left_;
    std::string text(random_() % (random_() % 10 == 0 ? 90000 : 900), '\0');
    for (char& byte : text) byte = static_cast<char>(random_());
    const auto size = static_cast<std::uint32_t>(text.size());
    const std::uint32_t head[] = {size, keelbase::hash_bytes(text.data(), size, size)};
    output_.assign(reinterpret_cast<const char*>(head), sizeof head);
    output_ += text;
  }

  CAWAutoPtr<IAWShmIPCTransport> transport_;
  std::minstd_rand random_;
  int left_;
  const int expected_;
  std::string output_;
  std::string input_;
};

TEST(ShmIPCTransportSend, TwoThreadsExchangeWholeMessages) {
  using keelbase::CAWThreadManager;
  constexpr int kMessages = 600;
  auto* network = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK);
  auto* task = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_TASK);
  for (const std::uint32_t spin : {0U, 50U}) {
    network->SetSpin(spin);
    task->SetSpin(spin);
    const ShmSystem system;
    ShmServer server;
    CAWAutoPtr<IAWShmIPCConnector> connector;
    ShmIndicationSink connected;
    task->Call([&] {
      connector = MakeShmConnector();
      std::uint32_t size = kLeastShmRing;
      EXPECT_EQ(connector->SetOption(AW_OPT_RING_SIZE, &size), AW_OK);
      EXPECT_EQ(connector->AsyncConnect(&connected, kShmServer, 0, nullptr), AW_OK);
    });
    Talker here(server.Accept(), 1, kMessages);
    ASSERT_TRUE(Await([&] { return task->Call([&] { return connected.count; }) == 1; }));
    Talker there(connected.got.at(0).transport, 2, kMessages);
    connected.got.clear();
    task->Call([&] { there.Start(); });
    here.Start();
    keelbase::internal::Timer look(network->GetLoop());
    look.Start(std::chrono::milliseconds(1), 0, [&] {
      if (here.IsDone()) network->Stop();
    });
    EXPECT_EQ(network->Run(), AW_OK);
    ASSERT_TRUE(Await([&] { return task->Call([&] { return there.IsDone(); }); }));
    EXPECT_EQ(here.received, kMessages);
    EXPECT_EQ(here.wrong, 0);
    task->Call([&] {
      EXPECT_EQ(there.received, kMessages);
      EXPECT_EQ(there.wrong, 0);
      there.Close();
      connector = nullptr;
    });
  }
  network->SetSpin(0);
  task->SetSpin(0);
}

}  // namespace
}  // namespace fshmipc
