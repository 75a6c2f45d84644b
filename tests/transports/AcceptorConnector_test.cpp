// AcceptorConnector_test.cpp - letting go of acceptors and connectors, which those of all
// transports do alike.
#include <gtest/gtest.h>

#include <thread>
#include <type_traits>

#include "RealLinks.h"

namespace zarn::test {
namespace {

template <class Over>
class AcceptorConnector : public ::testing::Test {
 protected:
  struct Sink final : Over::ConnectSink {
    int told = 0;
    void Told(long, typename Over::Transport*) override { ++told; }
  };

  void SetUp() override {
    if constexpr (std::is_base_of_v<links::TlsLink, Over>) links::OwnCertificate();
    ASSERT_EQ(Over::Make(acceptor), AW_OK);
    ASSERT_EQ(over.Listen(*acceptor, accepted), AW_OK);
    ASSERT_EQ(Over::Make(connector), AW_OK);
  }
  void TearDown() override {
    acceptor = nullptr;
    connector = nullptr;
    RunReady();
  }
  void Connect() { ASSERT_EQ(over.Connect(*connector, connected, *acceptor), AW_OK); }
  static void TakeTurns(int count) {
    auto* network =
        keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
    for (int i = 0; i < count; ++i) network->TEST_RunReady();
  }

  Over over;
  Sink accepted;
  Sink connected;
  CAWAutoPtr<typename Over::Acceptor> acceptor;
  CAWAutoPtr<typename Over::Connector> connector;
};
TYPED_TEST_SUITE(AcceptorConnector, links::Transports, links::LinkNames);

// The loop's thread, which is the test's, waits for the thread that lets go.
TYPED_TEST(AcceptorConnector, LettingGoOfAnAcceptorWaitsForNobody) {
  for (const int turns : {0, 1, 2, 3}) {
    this->Connect();
    this->TakeTurns(turns);
    const int before = this->accepted.told;
    std::thread([this] { this->acceptor = nullptr; }).join();
    Turn();
    EXPECT_EQ(this->accepted.told, before);
    ASSERT_EQ(TypeParam::Make(this->connector), AW_OK);
    ASSERT_EQ(TypeParam::Make(this->acceptor), AW_OK);
    ASSERT_EQ(this->over.Listen(*this->acceptor, this->accepted), AW_OK);
  }
}

TYPED_TEST(AcceptorConnector, LettingGoOfAConnectorWaitsForNobody) {
  for (const int turns : {0, 1, 2, 3}) {
    this->Connect();
    this->TakeTurns(turns);
    const int before = this->connected.told;
    std::thread([this] { this->connector = nullptr; }).join();
    Turn();
    EXPECT_EQ(this->connected.told, before);
    ASSERT_EQ(TypeParam::Make(this->connector), AW_OK);
  }
}

// Also while the callback of the connect before is just running.
TYPED_TEST(AcceptorConnector, AThreadWithoutALoopConnectsAgainOnceTheConnectUnderWayHasEnded) {
  this->connector = nullptr;
  std::thread user([this] {
    ASSERT_EQ(TypeParam::Make(this->connector), AW_OK);
    this->Connect();
    while (this->over.Connect(*this->connector, this->connected, *this->acceptor) != AW_OK) {
    }
  });
  EXPECT_TRUE(Await([this] { return this->connected.told == 2; }));
  user.join();
}

}  // namespace
}  // namespace zarn::test
