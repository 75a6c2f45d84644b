// CAWShmIPCManager_test.cpp - the manager, and putting another in its place.
#include "fshmipc/CAWShmIPCManager.h"

#include <gtest/gtest.h>

#include "RealShmIpc.h"
#include "VirtualSlot.h"

namespace fshmipc {
namespace {

using namespace zarn::test;

class OtherManager final : public CAWShmIPCManager {
 public:
  void SetSystemPath(const keelbase::CAWString& directory) override { path = directory; }
  AWResult CreateConnector(CAWAutoPtr<IAWShmIPCConnector>&) override { return AW_ERROR_FAILURE; }
  AWResult CreateAcceptor(CAWAutoPtr<IAWShmIPCAcceptor>&) override { return AW_ERROR_FAILURE; }
  std::string path;
};

TEST(CAWShmIPCManager, CanBeReplacedAndPutBack) {
  CAWShmIPCManager* const real = CAWShmIPCManager::Instance();
  OtherManager other;
  CAWShmIPCManager::TEST_SetInstance(&other);
  CAWShmIPCManager::Instance()->SetSystemPath("/elsewhere");
  EXPECT_EQ(other.path, "/elsewhere");
  CAWShmIPCManager::TEST_SetInstance(nullptr);
  EXPECT_EQ(CAWShmIPCManager::Instance(), real);
}

TEST(CAWShmIPCManager, EachConnectorAndAcceptorIsNew) {
  EXPECT_NE(MakeShmConnector(), MakeShmConnector());
  EXPECT_NE(MakeShmAcceptor(), MakeShmAcceptor());
}

TEST(CAWShmIPCManager, SystemPathCountsForWhatStartsAfterwards) {
  ShmPair p;
  p.Open();
  CAWShmIPCManager::Instance()->SetSystemPath("/elsewhere");
  p.client.Send("still here");
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "still here"; }));
}

TEST(CAWShmIPCManager, AddressesAreValues) {
  EXPECT_EQ(CAWShmIPCAddr(), CAWShmIPCAddr(0, 0));
  EXPECT_EQ(CAWShmIPCAddr(1, 65535).GetFirst(), 1);
  EXPECT_EQ(CAWShmIPCAddr(1, 65535).GetSecond(), 65535);
  EXPECT_NE(CAWShmIPCAddr(1, 2), CAWShmIPCAddr(2, 1));
}

TEST(CAWShmIPCManager, VirtualFunctionsKeepTheirSlots) {
  EXPECT_EQ(VirtualSlot(&CAWShmIPCManager::SetSystemPath), 0);
  EXPECT_EQ(VirtualSlot(&CAWShmIPCManager::CreateConnector), 1);
  EXPECT_EQ(VirtualSlot(&CAWShmIPCManager::CreateAcceptor), 2);
}

}  // namespace
}  // namespace fshmipc
