// TransportsAllocations_test.cpp - each allocation on the way of a connection fails in turn, over
// each transport: on the thread that calls, which is the loop's own. Both sides hear how it went,
// and the listener goes on. Real sockets.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "FailingAllocations.h"
#include "RealLinks.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using namespace links;

// --- a connection ---

// One end; allocates nothing.
template <class Over>
class End final : public Over::ConnectSink, public Over::Sink {
 public:
  bool told = false;
  bool ended = false;
  long reason = 0;
  std::size_t received = 0;
  CAWAutoPtr<typename Over::Transport> transport;

  void Told(long why, typename Over::Transport* made) override {
    told = true;
    reason = why;
    EXPECT_EQ(why == 0, made != nullptr);
    if (made == nullptr) return;
    transport = made;
    EXPECT_EQ(transport->OpenWithSink(this), AW_OK);
  }
  void Received(const CAWMessageBlock& data) override {
    EXPECT_FALSE(ended);
    received += data.GetChainedLength();
  }
  void OnRoom() override {}
  void Ended(long why) override {
    EXPECT_FALSE(ended);
    ended = true;
    reason = why;
  }
  void Reset() {
    told = ended = false;
    reason = 0;
    received = 0;
  }
  bool IsOver() const { return ended || (told && !transport); }
  void Close() {
    if (transport) transport->Disconnect(0);
    transport = nullptr;
  }
};

template <class Over>
class TransportsAllocations : public ::testing::Test {
 protected:
  using Connector = typename Over::Connector;

  void SetUp() override {
    if constexpr (std::is_base_of_v<TlsLink, Over>) OwnCertificate();
    ASSERT_EQ(Over::Make(acceptor), AW_OK);
  }
  void TearDown() override {
    acceptor->StopListen();
    acceptor = nullptr;
    for (int second = 0; second < 20; ++second) clock.Advance(std::chrono::seconds(1));
  }

  // Connects and sends both ways; true when all arrived, else both sides have heard of an end.
  bool Exchange() {
    client.Reset();
    server.Reset();
    CAWAutoPtr<Connector> connector;
    if (Over::Make(connector) != AW_OK) return false;
    if (over.Connect(*connector, client, *acceptor) != AW_OK) return false;
    EXPECT_TRUE(Wait([this] { return client.IsOver() || (client.told && server.told); }));
    const bool sent = client.transport && Send(client) && Send(server);
    EXPECT_TRUE(!sent ||
                Wait([this] { return IsComplete() || client.IsOver() || server.IsOver(); }));
    const bool complete = sent && IsComplete();
    client.Close();
    server.Close();
    connector = nullptr;
    RunReady();
    return complete;
  }
  // Time passes while there is nothing to do, a minute at most: a peer that fell silent is given
  // up.
  template <class Condition>
  bool Wait(Condition condition) {
    for (int waited = 0; !condition(); ++waited) {
      if (waited == 6000) return false;
      RunReady();
      if (!condition()) clock.Advance(std::chrono::milliseconds(10));
    }
    return true;
  }
  bool Send(End<Over>& end) {
    CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
    return end.transport && end.transport->SendData(block, nullptr) == AW_OK;
  }
  bool IsComplete() const {
    return client.received == bytes.size() && server.received == bytes.size();
  }

  Over over;
  const std::string bytes = std::string(10000, 'x');
  CAWAutoPtr<typename Over::Acceptor> acceptor;
  End<Over> client;
  End<Over> server;
  HandClock clock;
  TraceLines trace;
};

TYPED_TEST_SUITE(TransportsAllocations, Transports, LinkNames);

TYPED_TEST(TransportsAllocations, AnExchangeIsCompleteOrBothSidesHearThatItIsNot) {
  ASSERT_EQ(this->over.Listen(*this->acceptor, this->server), AW_OK);
  ASSERT_TRUE(this->Exchange());
  for (EachAllocation each; each.Next();) {
    bool complete = false;
    each.Try([&] { complete = this->Exchange(); });
    EXPECT_TRUE(complete || each.HasFailed());
    ASSERT_FALSE(this->HasFailure()) << "allocation " << each.GetNumber();
  }
  EXPECT_TRUE(this->Exchange());
}

TYPED_TEST(TransportsAllocations, AListenerThatFindsNoMemorySaysSoAndCanBeStartedAgain) {
  for (EachAllocation each; each.Next();) {
    AWResult result = AW_OK;
    each.Try([&] { result = this->over.Listen(*this->acceptor, this->server); });
    // What it can do without is no reason to fail.
    EXPECT_TRUE(result == AW_OK || each.HasFailed());
    if (result == AW_OK) this->acceptor->StopListen();
  }
  ASSERT_EQ(this->over.Listen(*this->acceptor, this->server), AW_OK);
  EXPECT_TRUE(this->Exchange());
}

}  // namespace
}  // namespace zarn::test
