// CZARNListenNode_test.cpp - a listening service and its key.
#include "zarn/utils/CZARNListenNode.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>

#include "keelbase/CAWHash.h"

namespace zarn::test {
namespace {

using keelbase::CAWInetAddr;
using utils::CZARNListenNodeItem;
using utils::CZARNListenNodeKey;

static_assert(offsetof(CZARNListenNodeKey, datacenterid) == 0 &&
              offsetof(CZARNListenNodeKey, clusterid) == 4 &&
              offsetof(CZARNListenNodeKey, nodeid) == 8 &&
              offsetof(CZARNListenNodeKey, pno) == 12 &&
              offsetof(CZARNListenNodeKey, serviceno) == 14 && sizeof(CZARNListenNodeKey) == 16);

CZARNListenNodeItem MakeItem() {
  CZARNListenNodeItem item;
  item.SetPno(3);
  item.SetServiceno(1);
  item.SetClusterid(7);
  item.SetDatacenterid(2);
  item.SetNodeId(31);
  item.SetListenPrivateIP(CAWInetAddr("10.0.0.5", 7000));
  item.SetListenPublicIP(CAWInetAddr("192.0.2.7", 8443));
  return item;
}

TEST(CZARNListenNodeItem, DefaultIsEmpty) {
  const CZARNListenNodeItem item;
  EXPECT_EQ(item.GetPno(), 0U);
  EXPECT_EQ(item.GetServiceno(), 0U);
  EXPECT_EQ(item.GetClusterid(), 0U);
  EXPECT_EQ(item.GetDatacenterid(), 0U);
  EXPECT_EQ(item.GetNodeId(), 0U);
  EXPECT_EQ(item.GetListenPrivateIP(), CAWInetAddr(0));
  EXPECT_EQ(item.GetListenPublicIP(), CAWInetAddr(0));
  EXPECT_FALSE(item.IsPublicChannel());
}

TEST(CZARNListenNodeItem, EachSetterSetsItsField) {
  const CZARNListenNodeItem item = MakeItem();
  EXPECT_EQ(item.GetPno(), 3U);
  EXPECT_EQ(item.GetServiceno(), 1U);
  EXPECT_EQ(item.GetClusterid(), 7U);
  EXPECT_EQ(item.GetDatacenterid(), 2U);
  EXPECT_EQ(item.GetNodeId(), 31U);
  EXPECT_EQ(item.GetListenPrivateIP(), CAWInetAddr("10.0.0.5", 7000));
  EXPECT_EQ(item.GetListenPublicIP(), CAWInetAddr("192.0.2.7", 8443));
}

TEST(CZARNListenNodeItem, EachFieldIsCopiedAndCompared) {
  const std::function<void(CZARNListenNodeItem&)> changes[] = {
      [](CZARNListenNodeItem& item) { item.SetPno(99); },
      [](CZARNListenNodeItem& item) { item.SetServiceno(99); },
      [](CZARNListenNodeItem& item) { item.SetClusterid(99); },
      [](CZARNListenNodeItem& item) { item.SetDatacenterid(99); },
      [](CZARNListenNodeItem& item) { item.SetNodeId(99); },
      [](CZARNListenNodeItem& item) { item.SetListenPrivateIP(CAWInetAddr("10.0.0.5", 1)); },
      [](CZARNListenNodeItem& item) { item.SetListenPublicIP(CAWInetAddr("10.0.0.5", 1)); }};
  for (const auto& change : changes) {
    CZARNListenNodeItem item;
    item = MakeItem();
    EXPECT_TRUE(item == MakeItem());
    EXPECT_FALSE(item != MakeItem());
    change(item);
    EXPECT_FALSE(item == MakeItem());
    EXPECT_TRUE(item != MakeItem());
  }
}

TEST(CZARNListenNodeItem, IsPublicWithAPublicIpOfItsOwn) {
  CZARNListenNodeItem item = MakeItem();
  EXPECT_TRUE(item.IsPublicChannel());
  item.SetListenPrivateIP(CAWInetAddr(0));
  EXPECT_TRUE(item.IsPublicChannel());
}

TEST(CZARNListenNodeItem, IsNotPublicWithoutAPublicIp) {
  CZARNListenNodeItem item = MakeItem();
  item.SetListenPublicIP(CAWInetAddr("0.0.0.0", 8443));
  EXPECT_FALSE(item.IsPublicChannel());
}

TEST(CZARNListenNodeItem, IsNotPublicWhenThePublicIpIsThePrivateOneWhateverThePorts) {
  CZARNListenNodeItem item = MakeItem();
  item.SetListenPublicIP(CAWInetAddr("10.0.0.5", 8443));
  EXPECT_FALSE(item.IsPublicChannel());
}

TEST(CZARNListenNodeKey, BytesAreTheFields) {
  const CZARNListenNodeKey key(MakeItem());
  const unsigned char expected[16] = {2, 0, 0, 0, 7, 0, 0, 0, 31, 0, 0, 0, 3, 0, 1, 0};
  EXPECT_EQ(std::memcmp(&key, expected, sizeof expected), 0);
  EXPECT_EQ(utils::CZARNListenNodeKeyHashFun()(key), keelbase::hash_bytes(expected, 16, 0));
}

TEST(CZARNListenNodeKey, EachFieldCounts) {
  const CZARNListenNodeKey key(MakeItem());
  for (auto field : {&CZARNListenNodeKey::datacenterid, &CZARNListenNodeKey::clusterid,
                     &CZARNListenNodeKey::nodeid}) {
    CZARNListenNodeKey other = key;
    EXPECT_TRUE(other == key);
    ++(other.*field);
    EXPECT_FALSE(other == key);
  }
  for (auto field : {&CZARNListenNodeKey::pno, &CZARNListenNodeKey::serviceno}) {
    CZARNListenNodeKey other = key;
    ++(other.*field);
    EXPECT_FALSE(other == key);
  }
}

TEST(CZARNListenNodeKey, PrintObjectPrintsNothing) {
  ::testing::internal::CaptureStdout();
  CZARNListenNodeKey(MakeItem()).PrintObject();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace zarn::test
