// PtcpConnector_test.cpp - connecting: how it ends, when that is told, and how it is given up. Real
// loopback sockets; time is moved by hand where a test waits for a limit.
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <memory>

#include "DescriptorShortage.h"
#include "ExitingChild.h"
#include "RealPtcp.h"
#include "UdpSocket.h"

namespace ptcp::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWTimeValue;

// A port that takes datagrams and never answers.
class SilentPort {
 public:
  SilentPort() {
    const CAWInetAddr any = Loopback();
    EXPECT_EQ(socket_.Open(&any, nullptr), 0);
  }
  CAWInetAddr Address() const { return socket_.GetLocalAddr(); }

  // How many datagrams there are, which are gone then.
  int Take() {
    std::array<char, 65536> room;
    UdpSocket::Received received;
    int count = 0;
    while (socket_.Read(room, received) == 0) ++count;
    return count;
  }

 private:
  UdpSocket socket_;
};

// A port at which nobody listens.
CAWInetAddr DeadAddress() { return SilentPort().Address(); }

class PtcpConnectorTest : public RealPtcp {
 protected:
  AWResult Begin(const CAWInetAddr& peer, const CAWTimeValue* timeout = nullptr,
                 const CAWInetAddr* local = nullptr) {
    connected = ConnectRecorder();
    return connector->AsyncConnect(&connected, peer, timeout, local);
  }
  // The reason of a connect, which comes once, later, and without a transport when it failed.
  long ReasonOf(const CAWInetAddr& peer, const CAWInetAddr* local = nullptr) {
    EXPECT_EQ(Begin(peer, nullptr, local), AW_OK);
    EXPECT_EQ(connected.indications, 0);
    EXPECT_TRUE(WaitFor([&] { return connected.indications != 0; }));
    EXPECT_EQ(connected.indications, 1);
    EXPECT_EQ(connected.id, connector.Get());
    EXPECT_EQ(connected.reason == 0, connected.transports.back() != nullptr);
    return connected.reason;
  }
};

TEST_F(PtcpConnectorTest, EachFailureIsOneIndicationWithItsReason) {
  Listen();
  EXPECT_EQ(ReasonOf(DeadAddress()), ECONNREFUSED);
  EXPECT_EQ(ReasonOf(CAWInetAddr()), EADDRNOTAVAIL);
  const CAWInetAddr foreign("192.0.2.1", 0);
  EXPECT_EQ(ReasonOf(address, &foreign), EADDRNOTAVAIL);
  const CAWInetAddr taken = address;
  EXPECT_EQ(ReasonOf(address, &taken), EADDRINUSE);
}

TEST_F(PtcpConnectorTest, OwnAddressAndPortAreUsed) {
  Listen();
  const CAWInetAddr wanted = DeadAddress();
  ASSERT_EQ(ReasonOf(address, &wanted), 0);
  CAWInetAddr local;
  EXPECT_EQ(connected.transports.back()->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &local), AW_OK);
  EXPECT_EQ(local, wanted);
}

TEST_F(PtcpConnectorTest, MisuseIsRefused) {
  Listen();
  EXPECT_EQ(connector->AsyncConnect(nullptr, address, nullptr, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(Begin(address), AW_OK);
  EXPECT_EQ(Begin(address), AW_ERROR_FAILURE);
  EXPECT_TRUE(WaitFor([&] { return connected.indications == 1; }));
}

TEST_F(PtcpConnectorTest, MayBeUsedAgainInsideItsIndication) {
  Listen();
  EXPECT_EQ(Begin(DeadAddress()), AW_OK);
  connected.onIndication = [&] {
    if (connected.indications == 1) {
      EXPECT_EQ(connector->AsyncConnect(&connected, address, nullptr, nullptr), AW_OK);
    }
  };
  EXPECT_TRUE(WaitFor([&] { return connected.indications == 2; }));
  EXPECT_EQ(connected.reason, 0);
}

TEST_F(PtcpConnectorTest, SilentAddressEndsWithTheTimeout) {
  const SilentPort silent;
  zarn::test::HandClock clock;
  auto timeout = std::make_unique<CAWTimeValue>(3, 0);
  EXPECT_EQ(Begin(silent.Address(), timeout.get()), AW_OK);
  timeout.reset();  // it was copied
  clock.Advance(std::chrono::milliseconds(2999));
  EXPECT_EQ(connected.indications, 0);
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(connected.indications, 1);
  EXPECT_EQ(connected.reason, ETIMEDOUT);
  clock.Advance(std::chrono::seconds(20));
  EXPECT_EQ(connected.indications, 1);
}

TEST_F(PtcpConnectorTest, SilentAddressIsGivenUpAfterTenSecondsInAnyCase) {
  const SilentPort silent;
  zarn::test::HandClock clock;
  const CAWTimeValue timeout(60, 0);
  for (const CAWTimeValue* limit : {static_cast<const CAWTimeValue*>(nullptr), &timeout}) {
    EXPECT_EQ(Begin(silent.Address(), limit), AW_OK);
    for (int tenths = 0; tenths < 99; ++tenths) clock.Advance(std::chrono::milliseconds(100));
    EXPECT_EQ(connected.indications, 0);
    for (int tenths = 0; tenths < 5; ++tenths) clock.Advance(std::chrono::milliseconds(100));
    EXPECT_EQ(connected.indications, 1);
    EXPECT_EQ(connected.reason, ETIMEDOUT);
  }
}

TEST_F(PtcpConnectorTest, TimeoutThatIsOverAtOnceIsStillToldLater) {
  const SilentPort silent;
  const CAWTimeValue least(std::numeric_limits<std::int64_t>::min(), 0);
  for (const CAWTimeValue& timeout : {CAWTimeValue(0, 0), CAWTimeValue(-5, 0), least}) {
    EXPECT_EQ(Begin(silent.Address(), &timeout), AW_OK);
    EXPECT_EQ(connected.indications, 0);
    EXPECT_TRUE(WaitFor([&] { return connected.indications == 1; }));
    EXPECT_EQ(connected.reason, ETIMEDOUT);
  }
}

TEST_F(PtcpConnectorTest, LongestTimeoutsAreAllowed) {
  Listen();
  const CAWTimeValue timeout(std::numeric_limits<std::int64_t>::max(), 0);
  EXPECT_EQ(Begin(address, &timeout), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return connected.indications == 1; }));
  EXPECT_EQ(connected.reason, 0);
}

TEST_F(PtcpConnectorTest, CancelledConnectIsNeverIndicatedAtWhateverStage) {
  const SilentPort silent;
  for (const int turns : {0, 1, 3}) {
    zarn::test::HandClock clock;
    EXPECT_EQ(Begin(silent.Address()), AW_OK);
    for (int i = 0; i < turns; ++i) zarn::test::RunReady();
    EXPECT_EQ(connector->CancelConnect(), AW_OK);
    EXPECT_EQ(connector->CancelConnect(), AW_OK);
    clock.Advance(std::chrono::seconds(20));
    EXPECT_EQ(connected.indications, 0);
  }
}

TEST_F(PtcpConnectorTest, AForkedChildThatExitsTellsThePeerNothing) {
  SilentPort silent;
  ASSERT_EQ(Begin(silent.Address()), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return silent.Take() != 0; }));
  EXPECT_TRUE(zarn::test::ExitInChild([this] {
    connector->CancelConnect();
    connector = nullptr;
  }));
  EXPECT_EQ(silent.Take(), 0);
}

TEST_F(PtcpConnectorTest, CancelAfterTheEndTouchesNothing) {
  ListenAndConnect();
  Open();
  EXPECT_EQ(connector->CancelConnect(), AW_OK);
  EXPECT_EQ(SendText(*client, "alive"), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return serverSink.received == "alive"; }));
}

TEST_F(PtcpConnectorTest, LettingGoCancelsOnAnyThread) {
  const SilentPort silent;
  for (const bool elsewhere : {false, true}) {
    ASSERT_EQ(CAWPseudoTCPManager::Instance()->CreateConnector(connector), AW_OK);
    EXPECT_EQ(Begin(silent.Address()), AW_OK);
    zarn::test::RunReady();
    if (elsewhere) {
      std::thread([&] { connector = nullptr; }).join();
    } else {
      connector = nullptr;
    }
    zarn::test::HandClock().Advance(std::chrono::seconds(20));
    EXPECT_EQ(connected.indications, 0);
  }
}

TEST_F(PtcpConnectorTest, MayBeLetGoInsideItsIndication) {
  Listen();
  for (const CAWInetAddr& peer : {address, DeadAddress()}) {
    ASSERT_EQ(CAWPseudoTCPManager::Instance()->CreateConnector(connector), AW_OK);
    EXPECT_EQ(Begin(peer), AW_OK);
    connected.onIndication = [&] { connector = nullptr; };
    EXPECT_TRUE(WaitFor([&] { return connected.indications == 1; }));
  }
}

TEST_F(PtcpConnectorTest, TransportThatNobodyTookIsClosed) {
  Listen();
  EXPECT_EQ(Begin(address), AW_OK);
  connected.keep = false;
  ASSERT_TRUE(WaitFor([&] { return connected.indications == 1 && accepted.indications == 1; }));
  server = accepted.transports.back();
  EXPECT_EQ(server->OpenWithSink(&serverSink), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return serverSink.ended; }));
}

TEST_F(PtcpConnectorTest, LackOfDescriptorsIsAnErrorAndPasses) {
  Listen();
  {
    const zarn::test::DescriptorShortage shortage;
    EXPECT_EQ(ReasonOf(address), EMFILE);
  }
  EXPECT_EQ(ReasonOf(address), 0);
}

TEST(CAWPseudoTCPManager, AnotherOneCanBePutInPlace) {
  class Refusing final : public CAWPseudoTCPManager {
   public:
    keelbase::AWResult CreateConnector(CAWAutoPtr<IAWPseudoTCPConnector>&) override {
      return EPERM;
    }
    keelbase::AWResult CreateAcceptor(CAWAutoPtr<IAWPseudoTCPAcceptor>&) override { return EPERM; }
  };
  Refusing other;
  CAWPseudoTCPManager* const real = CAWPseudoTCPManager::Instance();
  CAWPseudoTCPManager::TEST_SetInstance(&other);
  CAWAutoPtr<IAWPseudoTCPConnector> connector;
  EXPECT_EQ(CAWPseudoTCPManager::Instance()->CreateConnector(connector), keelbase::AWResult{EPERM});
  CAWPseudoTCPManager::TEST_SetInstance(nullptr);
  EXPECT_EQ(CAWPseudoTCPManager::Instance(), real);
}

}  // namespace
}  // namespace ptcp::test
