// CAWIPCManager_test.cpp - the manager, and another one in its place.
#include "fipc/CAWIPCManager.h"

#include <gtest/gtest.h>

#include "FakeIpc.h"
#include "RealIpc.h"

namespace fipc {
namespace {

using namespace zarn::test;

TEST(CAWIPCManager, MakesDistinctConnectorsAndAcceptors) {
  const auto one = MakeConnector();
  const auto two = MakeConnector();
  const auto acceptor = MakeAcceptor();
  EXPECT_NE(one, nullptr);
  EXPECT_NE(one, two);
  EXPECT_NE(acceptor, nullptr);
}

TEST(CAWIPCManager, OtherKindsAreRefusedAndGiveNull) {
  auto connector = MakeConnector();
  auto acceptor = MakeAcceptor();
  for (const int kind : {0, 2, -1}) {
    EXPECT_EQ(CAWIPCManager::Instance()->CreateConnector(kind, connector), AW_ERROR_FAILURE);
    EXPECT_EQ(CAWIPCManager::Instance()->CreateAcceptor(kind, acceptor), AW_ERROR_FAILURE);
    EXPECT_EQ(connector, nullptr);
    EXPECT_EQ(acceptor, nullptr);
  }
}

TEST(CAWIPCManager, AnotherOneMayStandInForIt) {
  CAWIPCManager* real = CAWIPCManager::Instance();
  {
    FakeManager fake;
    EXPECT_EQ(CAWIPCManager::Instance(), static_cast<CAWIPCManager*>(&fake));
  }
  EXPECT_EQ(CAWIPCManager::Instance(), real);
}

}  // namespace
}  // namespace fipc
