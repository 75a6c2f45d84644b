// TransfersAllocations_test.cpp - each allocation of a transfer that the transport cannot take at
// once fails in turn, over each transport: of those who gather, send, receive, tell of room and
// linger after the close. Whatever fails, the bytes that arrive are those that were sent, from the
// first on. Real sockets, and no buffer that is ready from before.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>

#include "Exhaustion.h"
#include "RealLinks.h"
#include "Sanitized.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using namespace links;
using keelbase::AW_ERROR_PARTIAL_DATA;

// Each byte tells its place, so that one that is lost on the way is noticed.
class Numbered {
 public:
  static constexpr std::size_t kMaxPiece = 65536;  // of what is read at one place

  const char* At(std::size_t place) const { return bytes_.data() + place % kPeriod; }
  bool AreHere(const CAWMessageBlock& data, std::size_t place) const {
    for (const auto* block = &data; block != nullptr; block = block->GetNext()) {
      if (std::memcmp(block->GetReadPtr(), At(place), block->GetLength()) != 0) return false;
      place += block->GetLength();
    }
    return true;
  }

 private:
  static constexpr std::size_t kPeriod = 65521;

  const std::string bytes_ = [] {
    std::string bytes(kPeriod + kMaxPiece, '\0');
    std::uint32_t state = 1;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      state = state * 1664525 + 1013904223;
      bytes[i] = i < kPeriod ? static_cast<char>(state >> 24) : bytes[i - kPeriod];
    }
    return bytes;
  }();
};

template <class Over>
class Side : public Over::ConnectSink, public Over::Sink {
 public:
  explicit Side(const Numbered& numbered) : bytes(numbered) {}

  void Told(long why, typename Over::Transport* made) override {
    ASSERT_EQ(why, 0);
    transport = made;
    EXPECT_EQ(transport->OpenWithSink(this), AW_OK);
  }
  void Ended(long why) override {
    EXPECT_FALSE(ended);
    ended = true;
    reason = why;
  }
  void StopReading(bool stop) {
    EXPECT_EQ(transport->SetOption(keelbase::AW_OPT_STOP_READING, &stop), AW_OK);
  }

  const Numbered& bytes;
  CAWAutoPtr<typename Over::Transport> transport;
  bool ended = false;
  long reason = 0;
};

// Sends until the transport takes no more, once more when it tells of room, and leaves with a rest.
template <class Over>
class Sender final : public Side<Over> {
 public:
  using Side<Over>::Side;
  static constexpr std::size_t kRest = 50000;

  // What finds no memory may be sent again, unless that has ended the connection.
  void Fill() {
    AWResult result = AW_OK;
    for (int failures = 0; failures < 2 && result != AW_ERROR_PARTIAL_DATA;) {
      result = Send(taken < 20000 ? 1000 : 40000);
      if (result != AW_OK) ++failures;
    }
    failed = result != AW_ERROR_PARTIAL_DATA;
  }
  AWResult Send(std::size_t length) {
    CAWMessageBlock block(this->bytes.At(taken), length, CAWMessageBlock::borrow);
    const AWResult result = this->transport->SendData(block, nullptr);
    EXPECT_TRUE(result == AW_OK || result == AW_ERROR_PARTIAL_DATA || block.GetLength() == length);
    taken += length - block.GetLength();
    return result;
  }
  // What it may not write now is written after the close.
  void Leave() {
    for (AWResult result = AW_OK; result == AW_OK && rests < 2; ++rests) {
      CAWMessageBlock rest(this->bytes.At(taken), kRest, CAWMessageBlock::borrow);
      result = this->transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &rest);
      if (result == AW_OK) taken += kRest;
    }
    this->transport->Disconnect(0);
    this->transport = nullptr;
  }
  void OnRoom() override {
    const CAWMessageBlock needed(100);
    if (++rooms == 1) Fill();
  }
  void Received(const CAWMessageBlock&) override { ADD_FAILURE(); }

  std::size_t taken = 0;
  int rooms = 0;
  int rests = 0;
  bool failed = false;
};

// Keeps the bytes that it gets, so that the next ones need another buffer.
template <class Over>
class Receiver final : public Side<Over> {
 public:
  using Side<Over>::Side;

  void Received(const CAWMessageBlock& data) override {
    EXPECT_FALSE(this->ended);
    EXPECT_TRUE(this->bytes.AreHere(data, received)) << "after " << received;
    received += data.GetChainedLength();
    kept.reset(data.DuplicateChained());
  }
  void OnRoom() override { ADD_FAILURE(); }

  std::size_t received = 0;
  std::unique_ptr<CAWMessageBlock> kept;
};

template <class Over>
class TransfersAllocations : public ::testing::Test {
 protected:
  void SetUp() override {
    if constexpr (std::is_base_of_v<TlsLink, Over>) OwnCertificate();
    ASSERT_EQ(Over::Make(acceptor), AW_OK);
  }
  void TearDown() override {
    if (acceptor) acceptor->StopListen();
    acceptor = nullptr;
    Pass(std::chrono::seconds(20));
  }
  void Connect() {
    server = std::make_unique<Receiver<Over>>(bytes);
    client = std::make_unique<Sender<Over>>(bytes);
    ASSERT_EQ(Over::Make(connector), AW_OK);
    ASSERT_EQ(over.Connect(*connector, *client, *acceptor), AW_OK);
    ASSERT_TRUE(Wait([this] { return client->transport && server->transport; }));
    std::uint32_t few = 100000;
    client->transport->SetOption(ptcp::AW_OPT_SEND_QUEUE_LIMIT, &few);  // if it has that
    server->StopReading(true);
    RunReady();
  }
  // A transfer in steps, of which each begins without anything that is ready.
  static constexpr int kSteps = 3;
  void Step(int step) {
    if (step == 0) {
      client->Fill();
      RunReady();
    } else if (step == 1) {
      if (!server->ended) server->StopReading(false);
      EXPECT_TRUE(Wait([this] { return client->rooms != 0 || client->failed || IsOver(); }));
    } else {
      if (!server->ended) server->StopReading(true);
      client->Fill();  // so that the rest finds no room
      client->Leave();
      RunReady();
      if (!server->ended) server->StopReading(false);
      EXPECT_TRUE(Wait([this] { return server->ended; }));
    }
  }
  bool IsOver() const { return client->ended || server->ended; }
  void Close() {
    server->transport->Disconnect(0);
    server = nullptr;
    client = nullptr;
    Pass(std::chrono::seconds(5));
  }
  void Pass(std::chrono::seconds time) {
    for (std::chrono::seconds passed{0}; passed < time; ++passed)
      clock.Advance(std::chrono::seconds(1));
  }
  template <class Condition>
  bool Wait(Condition condition) {
    for (int waited = 0; !condition(); ++waited) {
      if (waited == 6000) return false;
      RunReady();
      if (!condition()) clock.Advance(std::chrono::milliseconds(10));
    }
    return true;
  }

  void Try(bool andAllLater) {
    Accepting accepting(server);
    ASSERT_EQ(over.Listen(*acceptor, accepting), AW_OK);
    auto* manager = keelbase::CAWThreadManager::Instance();
    auto& loop = manager->GetThread(keelbase::CAWThreadManager::TT_NETWORK)->GetLoop();
    // Nothing is kept ready in a sanitizer's build, where all this takes long.
    const int starts = IsSanitized() ? 1 : kSteps;
    const std::size_t stride = IsSanitized() ? 7 : 1;
    for (int from = 0; from < starts; ++from) {
      for (EachAllocation each(andAllLater, stride); each.Next();) {
        Connect();
        ASSERT_FALSE(HasFailure());
        for (int step = 0; step < from; ++step) Step(step);
        {
          const EmptyPool pool;
          const EmptyBuffers buffers(loop);
          each.Try([&] {
            for (int step = from; step < kSteps; ++step) Step(step);
          });
        }
        Check(each.HasFailed());
        Close();
        ASSERT_FALSE(HasFailure()) << "allocation " << each.GetNumber() << " from step " << from;
      }
    }
  }

 private:
  // The acceptor's sink for all connections, of which each has a receiver of its own.
  class Accepting final : public Over::ConnectSink {
   public:
    explicit Accepting(const std::unique_ptr<Receiver<Over>>& receiver) : receiver_(receiver) {}
    void Told(long reason, typename Over::Transport* made) override {
      receiver_->Told(reason, made);
    }

   private:
    const std::unique_ptr<Receiver<Over>>& receiver_;
  };

  void Check(bool failed) {
    EXPECT_LE(server->received, client->taken);
    if (!failed || (Over::kTellsACut && server->reason == 0)) {
      EXPECT_EQ(server->received, client->taken);
    }
    EXPECT_TRUE(failed || client->rooms != 0);
  }

  Over over;
  const Numbered bytes{};
  CAWAutoPtr<typename Over::Acceptor> acceptor;
  CAWAutoPtr<typename Over::Connector> connector;
  std::unique_ptr<Sender<Over>> client;
  std::unique_ptr<Receiver<Over>> server;
  HandClock clock;
  TraceLines trace;
};

using Transports = ::testing::Types<IpcLink, ShmLink, TcpLink, TlsLink, PtcpLink, PtlsLink>;
TYPED_TEST_SUITE(TransfersAllocations, Transports, LinkNames);

TYPED_TEST(TransfersAllocations, WhatArrivesIsTheBeginningOfWhatWasTaken) { this->Try(false); }

// Datagrams are lost then, time and again, and it takes the peer long to give up.
template <class Over>
class StreamTransfersAllocations : public TransfersAllocations<Over> {};
using Streams = ::testing::Types<IpcLink, ShmLink, TcpLink, TlsLink>;
TYPED_TEST_SUITE(StreamTransfersAllocations, Streams, LinkNames);

TYPED_TEST(StreamTransfersAllocations,
           WhatArrivesIsTheBeginningOfWhatWasTakenAlsoWhenMemoryNeverComesBack) {
  this->Try(true);
}

}  // namespace
}  // namespace zarn::test
