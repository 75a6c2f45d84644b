// CZARNListenNodeManager_test.cpp - the registry of listening services.
#include "zarn/utils/CZARNListenNodeManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "CountedHash.h"
#include "TestData.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_AVAILABLE;
using keelbase::AW_ERROR_NOT_FOUND;
using keelbase::CAWInetAddr;
using utils::CZARNListenNodeItem;
using utils::CZARNListenNodeKey;
using utils::CZARNListenNodeKeyHashFun;
using utils::CZARNListenNodeManager;

CZARNListenNodeItem MakeItem(std::uint32_t node, std::uint16_t serviceno = 1,
                             std::uint16_t port = 7000) {
  CZARNListenNodeItem item;
  item.SetPno(3);
  item.SetServiceno(serviceno);
  item.SetClusterid(7);
  item.SetDatacenterid(2);
  item.SetNodeId(node);
  item.SetListenPrivateIP(CAWInetAddr("10.0.0.5", port));
  item.SetListenPublicIP(CAWInetAddr("192.0.2.7", port));
  return item;
}

std::string Print(const CZARNListenNodeManager& nodes) {
  ::testing::internal::CaptureStdout();
  CZARNListenNodeManager::PrintAllMap(nodes.GetMap());
  return ::testing::internal::GetCapturedStdout();
}

// --- hash ---

TEST(CZARNListenNodeKeyHashFun, IsAskedOnceForAnEntryHoweverOftenTheTableGrows) {
  using Counted = CountedHash<CZARNListenNodeKeyHashFun>;
  std::unordered_set<CZARNListenNodeKey, Counted> keys;
  for (std::uint32_t node = 0; node < 1000; ++node) keys.emplace(MakeItem(node));
  EXPECT_EQ(Counted::calls, 1000);
}

// --- adding, finding, removing ---

TEST(CZARNListenNodeManager, EachOperationHasItsOwnCodeForAMissingEntry) {
  CZARNListenNodeManager nodes;
  CZARNListenNodeKey key(MakeItem(1));
  CZARNListenNodeItem out = MakeItem(9);
  EXPECT_EQ(nodes.LookupListenNotify(key), AW_ERROR_NOT_AVAILABLE);
  EXPECT_EQ(nodes.FindListenNotify(key, out), AW_ERROR_NOT_FOUND);
  EXPECT_EQ(nodes.RemoveListenNotify(key), AW_ERROR_FAILURE);
  EXPECT_EQ(AW_ERROR_NOT_AVAILABLE, 10012U);
  EXPECT_EQ(AW_ERROR_NOT_FOUND, 10011U);
  EXPECT_EQ(AW_ERROR_FAILURE, 10001U);
  EXPECT_EQ(out, MakeItem(9));
}

TEST(CZARNListenNodeManager, AddedItemIsFoundUntilItIsRemoved) {
  CZARNListenNodeManager nodes;
  CZARNListenNodeItem item = MakeItem(1);
  CZARNListenNodeKey key(item);
  EXPECT_EQ(nodes.AddListenNotify(item), 0U);
  EXPECT_EQ(nodes.LookupListenNotify(key), 0U);
  CZARNListenNodeItem out;
  EXPECT_EQ(nodes.FindListenNotify(key, out), 0U);
  EXPECT_EQ(out, item);
  EXPECT_EQ(nodes.RemoveListenNotify(key), 0U);
  EXPECT_EQ(nodes.RemoveListenNotify(key), AW_ERROR_FAILURE);
  EXPECT_EQ(nodes.GetSize(), 0U);
}

TEST(CZARNListenNodeManager, SecondAddOfAKeyReplacesTheItem) {
  CZARNListenNodeManager nodes;
  CZARNListenNodeItem first = MakeItem(1, 1, 7000);
  CZARNListenNodeItem second = MakeItem(1, 1, 8000);
  EXPECT_EQ(nodes.AddListenNotify(first), 0U);
  EXPECT_EQ(nodes.AddListenNotify(second), 0U);
  EXPECT_EQ(nodes.GetSize(), 1U);
  CZARNListenNodeKey key(first);
  CZARNListenNodeItem out;
  ASSERT_EQ(nodes.FindListenNotify(key, out), 0U);
  EXPECT_EQ(out, second);
}

TEST(CZARNListenNodeManager, ServicesOfOneProcessAreEntriesOfTheirOwn) {
  CZARNListenNodeManager nodes;
  CZARNListenNodeItem first = MakeItem(1, 1);
  CZARNListenNodeItem second = MakeItem(1, 2);
  nodes.AddListenNotify(first);
  nodes.AddListenNotify(second);
  EXPECT_EQ(nodes.GetSize(), 2U);
}

TEST(CZARNListenNodeManager, ClearedMapIsEmptyKeepsItsBucketsAndCanBeUsed) {
  CZARNListenNodeManager nodes;
  for (std::uint32_t node = 0; node < 100; ++node) {
    CZARNListenNodeItem item = MakeItem(node);
    nodes.AddListenNotify(item);
  }
  const std::size_t buckets = nodes.GetMap().bucket_count();
  ASSERT_GE(buckets, 100U);
  nodes.ClearMap();
  EXPECT_EQ(nodes.GetSize(), 0U);
  EXPECT_EQ(nodes.GetMap().bucket_count(), buckets);
  CZARNListenNodeItem item = MakeItem(1);
  EXPECT_EQ(nodes.AddListenNotify(item), 0U);
  EXPECT_EQ(nodes.GetSize(), 1U);
}

// --- visiting ---

TEST(CZARNListenNodeManager, EachItemIsVisitedInTheOrderOfTheMap) {
  CZARNListenNodeManager nodes;
  for (std::uint32_t node = 0; node < 50; ++node) {
    CZARNListenNodeItem item = MakeItem(node);
    nodes.AddListenNotify(item);
  }
  std::vector<std::uint32_t> visited;
  nodes.DumpStartListenItem(
      [&](const CZARNListenNodeItem& item) { visited.push_back(item.GetNodeId()); });
  std::vector<std::uint32_t> expected;
  for (const auto& [key, item] : nodes.GetMap()) expected.push_back(item.GetNodeId());
  EXPECT_EQ(visited, expected);
  EXPECT_EQ(visited.size(), 50U);
}

TEST(CZARNListenNodeManager, EmptyFunctionThrowsOnlyWhenThereIsAnEntry) {
  CZARNListenNodeManager nodes;
  EXPECT_NO_THROW(nodes.DumpStartListenItem(nullptr));
  CZARNListenNodeItem item = MakeItem(1);
  nodes.AddListenNotify(item);
  EXPECT_THROW(nodes.DumpStartListenItem(nullptr), std::bad_function_call);
}

TEST(CZARNListenNodeManager, MapIsACopy) {
  CZARNListenNodeManager nodes;
  CZARNListenNodeItem item = MakeItem(1);
  nodes.AddListenNotify(item);
  const CZARNListenNodeManager::Map map = nodes.GetMap();
  nodes.ClearMap();
  ASSERT_EQ(map.size(), 1U);
  EXPECT_EQ(map.begin()->second, item);
}

// --- printing ---

TEST(CZARNListenNodeManager, PrintOfAnEmptyMapIsItsHeading) {
  EXPECT_EQ(Print(CZARNListenNodeManager()), "ZARNListenNodeManager::PrintAllMap\n");
}

TEST(CZARNListenNodeManager, PrintIsThatOfTheFile) {
  CZARNListenNodeManager nodes;
  CZARNListenNodeItem item = MakeItem(4000000000U, 65535);
  nodes.AddListenNotify(item);
  EXPECT_EQ(Print(nodes), ReadTestData("listen_nodes.txt"));
}

TEST(CZARNListenNodeManager, PrintTellsTheKeyOfAnEntryFromItsItem) {
  CZARNListenNodeKey key;
  key.clusterid = 11;
  key.datacenterid = 12;
  key.serviceno = 13;
  key.pno = 14;
  key.nodeid = 15;
  ::testing::internal::CaptureStdout();
  CZARNListenNodeManager::PrintAllMap({{key, MakeItem(5)}});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "ZARNListenNodeManager::PrintAllMap\n"
            "key clusterid = 11\n"
            "key datecenterid = 12\n"
            "key serverno = 13\n"
            "key jno = 14\n"
            "key nodeid = 15\n"
            "value clusterid = 7\n"
            "value datacenterid = 2\n"
            "value pno = 3\n"
            "value serviceno = 1\n"
            "value nodeid = 5\n"
            "value listenprivateip = 10.0.0.5\n"
            "value listenpublicip = 192.0.2.7\n");
}

TEST(CZARNListenNodeManager, PrintIsDecimalWhateverTheStreamIsSetTo) {
  CZARNListenNodeManager nodes;
  CZARNListenNodeItem item = MakeItem(4000000000U, 65535);
  nodes.AddListenNotify(item);
  std::cout << std::hex << std::showbase;
  const std::string text = Print(nodes);
  std::cout << std::dec << std::noshowbase;
  EXPECT_EQ(text, ReadTestData("listen_nodes.txt"));
}

TEST(CZARNListenNodeManager, PrintHasTwelveLinesForEachEntry) {
  CZARNListenNodeManager nodes;
  for (std::uint32_t node = 0; node < 10; ++node) {
    CZARNListenNodeItem item = MakeItem(node);
    nodes.AddListenNotify(item);
  }
  const std::string text = Print(nodes);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 10 * 12);
}

// --- against a plain map ---

TEST(CZARNListenNodeManager, DoesWhatAMapDoes) {
  std::mt19937 random(4711);
  CZARNListenNodeManager nodes;
  std::map<std::pair<std::uint32_t, std::uint16_t>, CZARNListenNodeItem> model;
  for (int i = 0; i < 20000; ++i) {
    const auto node = static_cast<std::uint32_t>(random() % 40);
    const auto serviceno = static_cast<std::uint16_t>(random() % 40);
    CZARNListenNodeItem item = MakeItem(node, serviceno, static_cast<std::uint16_t>(random()));
    CZARNListenNodeKey key(item);
    const auto modelKey = std::make_pair(item.GetNodeId(), item.GetServiceno());
    CZARNListenNodeItem found;
    ASSERT_EQ(nodes.FindListenNotify(key, found) == 0, model.count(modelKey) == 1);
    ASSERT_EQ(nodes.LookupListenNotify(key) == 0, model.count(modelKey) == 1);
    if (model.count(modelKey) == 1) {
      ASSERT_EQ(found, model[modelKey]);
    }
    if (random() % 2 == 0) {
      ASSERT_EQ(nodes.AddListenNotify(item), 0U);
      model[modelKey] = item;
    } else {
      ASSERT_EQ(nodes.RemoveListenNotify(key) == 0, model.erase(modelKey) == 1);
    }
    ASSERT_EQ(nodes.GetSize(), model.size());
  }
}

}  // namespace
}  // namespace zarn::test
