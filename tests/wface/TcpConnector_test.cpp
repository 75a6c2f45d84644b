// TcpConnector_test.cpp - connecting: how it ends, when that is told, and how it is given up.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DescriptorShortage.h"
#include "RealTcp.h"
#include "VirtualSlot.h"

namespace wface {
namespace {

using namespace zarn::test;
using namespace zarn::test::tcp;
using zarn::test::tcp::IndicationSink;
using zarn::test::tcp::MakeAcceptor;
using zarn::test::tcp::MakeConnector;
using zarn::test::tcp::Server;
using zarn::test::tcp::TransportSink;

AWResult Connect(IAWConnector& connector, IndicationSink& sink, const CAWInetAddr& peer) {
  return connector.AsyncConnect(&sink, peer, nullptr, nullptr);
}

// The reason of a connect, which comes once, later, and without a transport when it failed.
long ReasonOf(const CAWInetAddr& peer, const CAWInetAddr* local = nullptr) {
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(connector->AsyncConnect(&sink, peer, nullptr, local), AW_OK);
  EXPECT_EQ(sink.count, 0);
  EXPECT_TRUE(Await([&] { return sink.count != 0; }));
  Turn();
  EXPECT_EQ(sink.count, 1);
  if (sink.got.empty()) return -1;
  EXPECT_EQ(sink.got[0].id, connector.Get());
  return sink.got[0].reason;
}

// A listener that answers no further connect: its queue is full and it drops the rest.
class SilentListener {
 public:
  SilentListener() : listener_(0) {
    for (int i = 0; i < 4; ++i) {
      fillers_.emplace_back();
      fillers_.back().Connect(listener_.LocalAddress());
    }
  }
  CAWInetAddr Address() const { return listener_.LocalAddress(); }
  void AnswerFromNowOn() { EXPECT_EQ(listener_.Listen(), 0); }

 private:
  PlainListener listener_;
  std::vector<PlainTcp> fillers_;
};

// How long each socket of this process that waits for its peer's answer may wait for it, as far as
// that was set: TCP_USER_TIMEOUT.
std::vector<unsigned> LimitsOfConnectingSockets() {
  std::vector<unsigned> limits;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) continue;
    if (info.tcpi_state != TCP_SYN_SENT) continue;
    unsigned limit = 0;
    size = sizeof limit;
    EXPECT_EQ(::getsockopt(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &limit, &size), 0);
    limits.push_back(limit);
  }
  return limits;
}

TEST(TcpConnector, SilenceLimitIsOfConnectionsAndEndsNoConnect) {
  const SilentListener listener;
  const std::size_t others = LimitsOfConnectingSockets().size();
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, listener.Address()), AW_OK);
  Turn();
  EXPECT_EQ(LimitsOfConnectingSockets(), std::vector<unsigned>(others + 1, 0U));
}

TEST(TcpConnector, ConnectsAndBothEndsKnowBothAddresses) {
  Server server;
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, server.Address()), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  const auto accepted = server.Accept();
  CAWInetAddr peer;
  CAWInetAddr local;
  EXPECT_EQ(sink.got[0].transport->GetOption(105, &peer), AW_OK);
  EXPECT_EQ(sink.got[0].transport->GetOption(104, &local), AW_OK);
  EXPECT_EQ(peer, server.Address());
  EXPECT_EQ(local.GetIpDisplayName(), "127.0.0.1");
  EXPECT_NE(local.GetPort(), 0);
  CAWInetAddr seen;
  EXPECT_EQ(accepted->GetOption(105, &seen), AW_OK);
  EXPECT_EQ(seen, local);
  EXPECT_EQ(accepted->GetOption(104, &seen), AW_OK);
  EXPECT_EQ(seen, server.Address());
}

// The system asks again after a second.
TEST(TcpConnector, ServerThatAnswersLateIsWaitedFor) {
  SilentListener listener;
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, listener.Address()), AW_OK);
  Turn();
  EXPECT_EQ(sink.count, 0);
  listener.AnswerFromNowOn();
  ASSERT_TRUE(Await([&] { return sink.count == 1; }));
  ASSERT_EQ(sink.got[0].reason, 0);
  CAWInetAddr peer;
  EXPECT_EQ(sink.got[0].transport->GetOption(105, &peer), AW_OK);
  EXPECT_EQ(peer, listener.Address());
}

TEST(TcpConnector, EachFailureIsOneIndicationWithItsReason) {
  const DeadPort dead;
  EXPECT_EQ(ReasonOf(dead.Address()), ECONNREFUSED);
  EXPECT_EQ(ReasonOf(CAWInetAddr()), EADDRNOTAVAIL);
  EXPECT_EQ(ReasonOf(CAWInetAddr("no such name anywhere.invalid", 80)), EADDRNOTAVAIL);
  EXPECT_NE(ReasonOf(CAWInetAddr("255.255.255.255", 80)), 0);
  Server server;
  const CAWInetAddr foreign("192.0.2.1", 0);
  EXPECT_EQ(ReasonOf(server.Address(), &foreign), EADDRNOTAVAIL);
  const CAWInetAddr taken = server.Address();
  EXPECT_EQ(ReasonOf(server.Address(), &taken), EADDRINUSE);
}

TEST(TcpConnector, OwnAddressAndPortAreUsed) {
  Server server;
  CAWInetAddr local;
  {
    const DeadPort free;
    local = free.Address();
  }
  for (const std::uint16_t port : {local.GetPort(), std::uint16_t{0}}) {
    const auto connector = MakeConnector();
    IndicationSink sink;
    auto wanted = std::make_unique<CAWInetAddr>("127.0.0.1", port);
    EXPECT_EQ(connector->AsyncConnect(&sink, server.Address(), nullptr, wanted.get()), AW_OK);
    wanted.reset();  // it was copied
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
    ASSERT_EQ(sink.got[0].reason, 0);
    CAWInetAddr seen;
    EXPECT_EQ(server.Accept()->GetOption(105, &seen), AW_OK);
    if (port != 0)
      EXPECT_EQ(seen, local);
    else
      EXPECT_NE(seen.GetPort(), 0);
  }
}

TEST(TcpConnector, SocketThatMeetsItselfIsRefused) {
  CAWInetAddr self;
  {
    const DeadPort free;
    self = free.Address();
  }
  EXPECT_EQ(ReasonOf(self, &self), ECONNREFUSED);
}

TEST(TcpConnector, MisuseIsRefused) {
  Server server;
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(connector->AsyncConnect(nullptr, server.Address(), nullptr, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(Connect(*connector, sink, server.Address()), AW_OK);
  EXPECT_EQ(Connect(*connector, sink, server.Address()), AW_ERROR_FAILURE);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
}

TEST(TcpConnector, MayBeUsedAgainAlsoInsideItsIndication) {
  const DeadPort dead;
  Server server;
  const auto connector = MakeConnector();
  IndicationSink sink;
  sink.onIndication = [&](IAWTransport*) {
    if (sink.count == 0) {
      EXPECT_EQ(Connect(*connector, sink, server.Address()), AW_OK);
    }
  };
  EXPECT_EQ(Connect(*connector, sink, dead.Address()), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 2; }));
  EXPECT_EQ(sink.got[1].reason, 0);
}

// --- timeouts ---

TEST(TcpConnector, SilentAddressEndsWithTheTimeout) {
  const SilentListener silent;
  HandClock clock;
  const auto connector = MakeConnector();
  IndicationSink sink;
  auto timeout = std::make_unique<CAWTimeValue>(3, 0);
  EXPECT_EQ(connector->AsyncConnect(&sink, silent.Address(), timeout.get(), nullptr), AW_OK);
  timeout.reset();  // it was copied
  clock.Advance(std::chrono::milliseconds(2999));
  EXPECT_EQ(sink.count, 0);
  clock.Advance(std::chrono::milliseconds(1));
  ASSERT_EQ(sink.count, 1);
  EXPECT_EQ(sink.got[0].reason, ETIMEDOUT);
  clock.Advance(std::chrono::seconds(10));
  EXPECT_EQ(sink.count, 1);
}

TEST(TcpConnector, TimeoutThatIsOverAtOnceIsStillToldLater) {
  const SilentListener silent;
  const CAWTimeValue least(std::numeric_limits<std::int64_t>::min(), 0);
  for (const CAWTimeValue& timeout : {CAWTimeValue(0, 0), CAWTimeValue(-5, 0), least}) {
    const auto connector = MakeConnector();
    IndicationSink sink;
    EXPECT_EQ(connector->AsyncConnect(&sink, silent.Address(), &timeout, nullptr), AW_OK);
    EXPECT_EQ(sink.count, 0);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
    EXPECT_EQ(sink.got[0].reason, ETIMEDOUT);
  }
}

TEST(TcpConnector, TimeoutDoesNotTouchAConnectionThatWasMadeInTime) {
  Server server;
  HandClock clock;
  const auto connector = MakeConnector();
  IndicationSink sink;
  const CAWTimeValue timeout(3, 0);
  EXPECT_EQ(connector->AsyncConnect(&sink, server.Address(), &timeout, nullptr), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  TransportSink events;
  sink.got[0].transport->OpenWithSink(&events);
  clock.Advance(std::chrono::seconds(10));
  EXPECT_EQ(sink.count, 1);
  EXPECT_FALSE(events.ended);
}

TEST(TcpConnector, LongestTimeoutsAreAllowed) {
  Server server;
  const auto connector = MakeConnector();
  IndicationSink sink;
  const CAWTimeValue timeout(std::numeric_limits<std::int64_t>::max(), 0);
  EXPECT_EQ(connector->AsyncConnect(&sink, server.Address(), &timeout, nullptr), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(sink.got[0].reason, 0);
}

// --- giving up ---

TEST(TcpConnector, CancelledConnectIsNeverIndicatedAtWhateverStage) {
  const SilentListener silent;
  Server server;
  for (const CAWInetAddr& peer : {silent.Address(), server.Address()}) {
    for (const int turns : {0, 1, 3}) {
      HandClock clock;
      const auto connector = MakeConnector();
      IndicationSink sink;
      const CAWTimeValue timeout(3, 0);
      EXPECT_EQ(connector->AsyncConnect(&sink, peer, &timeout, nullptr), AW_OK);
      auto* network =
          keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
      for (int i = 0; i < turns && sink.count == 0; ++i) network->TEST_RunReady();
      const int before = sink.count;  // it may be through by then
      EXPECT_EQ(connector->CancelConnect(), AW_OK);
      EXPECT_EQ(connector->CancelConnect(), AW_OK);
      clock.Advance(std::chrono::seconds(10));
      EXPECT_EQ(sink.count, before);
    }
  }
}

TEST(TcpConnector, CancelledConnectorMayBeUsedAgain) {
  const SilentListener silent;
  Server server;
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, silent.Address()), AW_OK);
  RunReady();
  connector->CancelConnect();
  EXPECT_EQ(Connect(*connector, sink, server.Address()), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(sink.got[0].reason, 0);
}

TEST(TcpConnector, CancelAfterTheEndTouchesNothing) {
  Server server;
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, server.Address()), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(connector->CancelConnect(), AW_OK);
  CAWMessageBlock block("alive", 5, CAWMessageBlock::borrow);
  EXPECT_EQ(sink.got[0].transport->SendData(block, nullptr), AW_OK);
  TransportSink accepted;
  const auto other = server.Accept();
  other->OpenWithSink(&accepted);
  EXPECT_TRUE(Await([&] { return accepted.received == "alive"; }));
}

TEST(TcpConnector, LettingGoCancelsOnAnyThread) {
  const SilentListener silent;
  for (const bool begun : {false, true}) {
    for (const bool elsewhere : {false, true}) {
      auto connector = MakeConnector();
      auto sink = std::make_unique<IndicationSink>();
      EXPECT_EQ(Connect(*connector, *sink, silent.Address()), AW_OK);
      if (begun) RunReady();
      if (elsewhere) {
        std::thread([&] { connector = nullptr; }).join();
      } else {
        connector = nullptr;
      }
      EXPECT_EQ(sink->count, 0);
      sink.reset();  // an indication would touch it
      Turn();
    }
  }
}

TEST(TcpConnector, MayBeLetGoInsideItsIndication) {
  const DeadPort dead;
  Server server;
  for (const CAWInetAddr& peer : {server.Address(), dead.Address()}) {
    auto connector = MakeConnector();
    IndicationSink sink;
    sink.onIndication = [&](IAWTransport*) { connector = nullptr; };
    EXPECT_EQ(Connect(*connector, sink, peer), AW_OK);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  }
}

TEST(TcpConnector, TransportThatNobodyTookIsClosed) {
  PlainListener listener;
  const auto connector = MakeConnector();
  IndicationSink sink;
  sink.keep = false;
  EXPECT_EQ(Connect(*connector, sink, listener.LocalAddress()), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  PlainTcp accepted = listener.Accept();
  EXPECT_TRUE(Await([&] {
    accepted.Receive();
    return accepted.ended;
  }));
  EXPECT_EQ(accepted.error, 0);
}

TEST(TcpConnector, CallbacksOfAForeignThreadsConnectorComeOnTheNetworkThread) {
  Server server;
  std::thread::id calledOn;
  IndicationSink sink;
  sink.onIndication = [&](IAWTransport*) { calledOn = std::this_thread::get_id(); };
  CAWAutoPtr<IAWConnector> connector;
  std::atomic<bool> started{false};
  std::thread foreign([&] {
    connector = MakeConnector();
    EXPECT_EQ(Connect(*connector, sink, server.Address()), AW_OK);
    started = true;
  });
  EXPECT_TRUE(Await([&] { return started && sink.count == 1; }));
  foreign.join();
  EXPECT_EQ(calledOn, std::this_thread::get_id());
}

TEST(TcpConnector, LackOfDescriptorsIsAnErrorAndPasses) {
  Server server;
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(ReasonOf(server.Address()), EMFILE);
  }
  EXPECT_EQ(ReasonOf(server.Address()), 0);
}

TEST(TcpConnector, VirtualFunctionsOfSinkAndIdKeepTheirSlots) {
  EXPECT_EQ(VirtualSlot(&IAWAcceptorConnectorSink::OnConnectIndication), 0);
  EXPECT_EQ(VirtualSlot(&IAWAcceptorConnectorId::AddReference), 0);
  EXPECT_EQ(VirtualSlot(&IAWAcceptorConnectorId::ReleaseReference), 1);
}

// --- the manager ---

TEST(CAWConnectionManager, OtherKindsAreRefusedAndGiveNull) {
  auto connector = MakeConnector();
  auto acceptor = MakeAcceptor();
  for (const int kind : {0, 2, -1}) {
    EXPECT_EQ(CAWConnectionManager::Instance()->CreateConnector(kind, connector), AW_ERROR_FAILURE);
    EXPECT_EQ(CAWConnectionManager::Instance()->CreateAcceptor(kind, acceptor), AW_ERROR_FAILURE);
    EXPECT_EQ(connector, nullptr);
    EXPECT_EQ(acceptor, nullptr);
  }
}

}  // namespace
}  // namespace wface
