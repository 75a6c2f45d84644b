// CZARNAppsManager_test.cpp - the registry of applications.
#include "zarn/utils/CZARNAppsManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <list>
#include <map>
#include <random>
#include <tuple>
#include <unordered_set>

#include "CountedHash.h"
#include "keelbase/CAWHash.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using utils::CZARNApp;
using utils::CZARNAppKeyHashFun;
using utils::CZARNAppsManager;
using utils::ZARNAppKey;

static_assert(offsetof(ZARNAppKey, datacenterid) == 0 && offsetof(ZARNAppKey, clusterid) == 4 &&
              offsetof(ZARNAppKey, nodeid) == 8 && offsetof(ZARNAppKey, jno) == 12 &&
              sizeof(ZARNAppKey) == 16);

CZARNApp MakeApp(std::uint32_t node, std::uint16_t jno, std::uint16_t serviceno = 0) {
  CZARNApp app;
  app.SetDataCenterId(1);
  app.SetClusterId(2);
  app.SetNodeId(node);
  app.jno = jno;
  app.serviceno = serviceno;
  return app;
}

std::list<CZARNApp> ListOf(const CZARNAppsManager& apps) {
  std::list<CZARNApp> list;
  apps.GetAppsList(list);
  return list;
}

// --- key ---

TEST(ZARNAppKey, BytesAreTheFieldsAndTwoZeros) {
  CZARNApp app = MakeApp(3, 0x1234, 0xFFFF);
  app.tno = 0xFFFF;
  const ZARNAppKey key(app);
  const unsigned char expected[16] = {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 0x34, 0x12, 0, 0};
  EXPECT_EQ(std::memcmp(&key, expected, sizeof expected), 0);
  EXPECT_EQ(CZARNAppKeyHashFun()(key), keelbase::hash_bytes(expected, 16, 0));
}

TEST(ZARNAppKey, EachFieldCounts) {
  const ZARNAppKey key(MakeApp(3, 4));
  for (auto field : {&ZARNAppKey::datacenterid, &ZARNAppKey::clusterid, &ZARNAppKey::nodeid}) {
    ZARNAppKey other = key;
    EXPECT_TRUE(other == key);
    ++(other.*field);
    EXPECT_FALSE(other == key);
  }
  ZARNAppKey other = key;
  ++other.jno;
  EXPECT_FALSE(other == key);
}

TEST(CZARNAppKeyHashFun, IsAskedOnceForAnEntryHoweverOftenTheTableGrows) {
  using Counted = CountedHash<CZARNAppKeyHashFun>;
  std::unordered_set<ZARNAppKey, Counted> keys;
  for (std::uint32_t node = 0; node < 1000; ++node) keys.emplace(MakeApp(node, 1));
  EXPECT_EQ(Counted::calls, 1000);
}

// --- adding ---

TEST(CZARNAppsManager, SecondAddOfAnAppIsRefused) {
  CZARNAppsManager apps;
  EXPECT_EQ(apps.AddApp(MakeApp(1, 5)), 0U);
  EXPECT_EQ(apps.AddApp(MakeApp(1, 5)), AW_ERROR_FAILURE);
  EXPECT_EQ(ListOf(apps).size(), 1U);
}

TEST(CZARNAppsManager, OneNodeHasOneAppOfAJobNumber) {
  CZARNAppsManager apps;
  EXPECT_EQ(apps.AddApp(MakeApp(1, 5, 1)), 0U);
  CZARNApp second = MakeApp(1, 5, 2);
  second.tno = 3;
  EXPECT_EQ(apps.AddApp(second), AW_ERROR_FAILURE);
  EXPECT_EQ(ListOf(apps).front().serviceno, 1U);
}

TEST(CZARNAppsManager, DataCentreClusterNodeAndJobTellAppsApart) {
  CZARNAppsManager apps;
  CZARNApp otherCentre = MakeApp(1, 5);
  otherCentre.SetDataCenterId(9);
  CZARNApp otherCluster = MakeApp(1, 5);
  otherCluster.SetClusterId(9);
  for (const CZARNApp& app :
       {MakeApp(1, 5), MakeApp(1, 6), MakeApp(2, 5), otherCentre, otherCluster})
    EXPECT_EQ(apps.AddApp(app), 0U);
  EXPECT_EQ(ListOf(apps).size(), 5U);
}

// --- removing ---

TEST(CZARNAppsManager, RemovingLooksAtTheKeyOnly) {
  CZARNAppsManager apps;
  apps.AddApp(MakeApp(1, 5, 1));
  CZARNApp other = MakeApp(1, 5, 2);
  other.tno = 7;
  other.ipaddr.Set("10.0.0.9", 9);
  other.pubipaddr.Set("10.0.0.9", 9);
  EXPECT_EQ(apps.RemoveApp(other), 0U);
  EXPECT_TRUE(ListOf(apps).empty());
}

TEST(CZARNAppsManager, RemovingWhatIsNotThereIsRefused) {
  CZARNAppsManager apps;
  EXPECT_EQ(apps.RemoveApp(MakeApp(1, 5)), AW_ERROR_FAILURE);
  apps.AddApp(MakeApp(1, 5));
  EXPECT_EQ(apps.RemoveApp(MakeApp(1, 6)), AW_ERROR_FAILURE);
  EXPECT_EQ(apps.RemoveApp(MakeApp(1, 5)), 0U);
  EXPECT_EQ(apps.RemoveApp(MakeApp(1, 5)), AW_ERROR_FAILURE);
  EXPECT_EQ(apps.AddApp(MakeApp(1, 5)), 0U);
}

// --- looking ---

TEST(CZARNAppsManager, JobNumberThatNobodyHasIsNotFound) {
  CZARNAppsManager apps;
  CZARNApp out = MakeApp(77, 7);
  EXPECT_EQ(apps.GetAppsByJno(5, out), AW_ERROR_FAILURE);
  apps.AddApp(MakeApp(1, 5));
  EXPECT_EQ(apps.GetAppsByJno(6, out), AW_ERROR_FAILURE);
  EXPECT_EQ(out.GetNodeId(), 77U);
}

TEST(CZARNAppsManager, OfSeveralWithOneJobNumberTheFirstInItsOwnOrderIsFound) {
  CZARNAppsManager apps;
  for (std::uint32_t node = 0; node < 20; ++node) {
    apps.AddApp(MakeApp(node, 5));
    apps.AddApp(MakeApp(node, 6));
  }
  const std::list<CZARNApp> list = ListOf(apps);
  const auto first =
      std::find_if(list.begin(), list.end(), [](const CZARNApp& app) { return app.jno == 6; });
  CZARNApp out;
  ASSERT_EQ(apps.GetAppsByJno(6, out), 0U);
  EXPECT_EQ(out, *first);
}

TEST(CZARNAppsManager, FoundAppLeavesTheFlagOfTheTarget) {
  CZARNAppsManager apps;
  CZARNApp app = MakeApp(1, 5);
  app.ispublic = true;
  apps.AddApp(app);
  CZARNApp out;
  ASSERT_EQ(apps.GetAppsByJno(5, out), 0U);
  EXPECT_FALSE(out.ispublic);
  out.ispublic = true;
  ASSERT_EQ(apps.GetAppsByJno(5, out), 0U);
  EXPECT_TRUE(out.ispublic);
}

TEST(CZARNAppsManager, ListIsAppendedTo) {
  CZARNAppsManager apps;
  std::list<CZARNApp> list = {MakeApp(9, 9)};
  apps.GetAppsList(list);
  EXPECT_EQ(list.size(), 1U);
  apps.AddApp(MakeApp(1, 5));
  apps.AddApp(MakeApp(2, 5));
  apps.GetAppsList(list);
  ASSERT_EQ(list.size(), 3U);
  EXPECT_EQ(list.front(), MakeApp(9, 9));
  EXPECT_NE(*std::next(list.begin()), list.back());
}

// --- against a plain map ---

TEST(CZARNAppsManager, DoesWhatAMapDoes) {
  std::mt19937 random(4711);
  CZARNAppsManager apps;
  std::map<std::tuple<std::uint32_t, std::uint16_t>, std::uint16_t> model;
  for (std::uint16_t i = 0; i < 20000; ++i) {
    const auto node = static_cast<std::uint32_t>(random() % 40);
    const auto jno = static_cast<std::uint16_t>(random() % 40);
    const CZARNApp app = MakeApp(node, jno, i);
    if (random() % 2 == 0) {
      ASSERT_EQ(apps.AddApp(app) == 0, model.try_emplace({node, jno}, i).second);
    } else {
      ASSERT_EQ(apps.RemoveApp(app) == 0, model.erase({node, jno}) == 1);
    }
  }
  const std::list<CZARNApp> list = ListOf(apps);
  EXPECT_EQ(list.size(), model.size());
  for (const CZARNApp& app : list) {
    ASSERT_EQ(model.count({app.GetNodeId(), app.jno}), 1U);
    EXPECT_EQ((model[{app.GetNodeId(), app.jno}]), app.serviceno);
  }
}

}  // namespace
}  // namespace zarn::test
