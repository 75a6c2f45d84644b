// ShmIPCTransport_send_test.cpp - what is particular to sending in shared memory: full rings, and
// both ends in one process. What all transports do alike is tested in tests/transports.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include "ChildTest.h"
#include "OpenDescriptors.h"
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
  EXPECT_EQ(block.GetLength(), text.size() - kMinShmRing);
  EXPECT_EQ(block.GetReadPtr(), text.data() + kMinShmRing);
  EXPECT_EQ(p.client.Counters().bytesSent, kMinShmRing);
  EXPECT_EQ(p.client.transport->SendData(block, nullptr), AW_ERROR_PARTIAL_DATA);
  EXPECT_EQ(block.GetLength(), text.size() - kMinShmRing);  // nothing of it this time
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
  EXPECT_GE(freeAtRoom, kMinShmRing / 2);
}

// --- closing with bytes on their way ---

// More than the ring holds; all of it.
std::string FillAndLinger(ShmEnd& end) {
  const std::string sent = end.Fill();
  const std::string more = Pattern(400000, sent.size());
  CAWMessageBlock block(more.data(), more.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(end.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block), AW_OK);
  return sent + more;
}

TEST(ShmIPCTransportSend, WhatLingersWaitsForAReaderThatIsNotOpenYet) {
  ShmPair p;
  p.client.Open();
  const std::string sent = FillAndLinger(p.client);
  EXPECT_EQ(p.client.transport->Disconnect(0), AW_OK);
  p.client.transport = nullptr;
  Turn();
  p.server.Open();
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_TRUE(p.server.sink.received == sent);
  EXPECT_EQ(p.server.sink.reason, 0);
  EXPECT_EQ(p.client.sink.sends, 0);
}

TEST(ShmIPCTransportSend, BothMayLingerForEachOther) {
  ShmPair p;
  FillAndLinger(p.client);
  FillAndLinger(p.server);
  const auto connected = CountOpenDescriptors();
  HandClock clock;
  p.client.transport->Disconnect(0);
  p.server.transport->Disconnect(0);  // neither reads any more: they end with their time
  clock.Advance(std::chrono::milliseconds(1999));
  EXPECT_EQ(CountOpenDescriptors(), connected);
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(CountOpenDescriptors(), connected - 2);
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
      std::uint32_t size = kMinShmRing;
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
