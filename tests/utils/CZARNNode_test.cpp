// CZARNNode_test.cpp - an address with a status.
#include "zarn/utils/CZARNNode.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <type_traits>

#include "Addresses.h"
#include "TestData.h"

namespace zarn::test {
namespace {

using utils::CZARNAddress;
using utils::CZARNNode;

static_assert(std::is_base_of_v<CZARNAddress, CZARNNode> && !std::is_polymorphic_v<CZARNNode>);

TEST(CZARNNode, AddressIsItsLeadingPart) {
  const CZARNNode node;
  EXPECT_EQ(static_cast<const void*>(static_cast<const CZARNAddress*>(&node)),
            static_cast<const void*>(&node));
  EXPECT_EQ(node.status, 1U);
  EXPECT_EQ(node.ToString(), "0/0/0/0/0");
}

TEST(CZARNNode, TakesAddressAndStatus) {
  const CZARNNode node(MakeAddress(), 4);
  EXPECT_EQ(node.ToString(), "2/7/31/5/1");
  EXPECT_EQ(node.status, 4U);
  EXPECT_TRUE(node.IsEqualsToLogicalAddress(MakeAddress()));
}

TEST(CZARNNode, CopiesCarryStatusAndAddressButNotTheFlag) {
  CZARNNode node(MakeAddress(), 4);
  node.ispublic = true;
  const CZARNNode constructed(node);
  CZARNNode assigned;
  assigned = node;
  EXPECT_TRUE(constructed == node);
  EXPECT_TRUE(assigned == node);
  EXPECT_EQ(constructed.status, 4U);
  EXPECT_EQ(assigned.status, 4U);
  EXPECT_FALSE(constructed.ispublic);
  EXPECT_FALSE(assigned.ispublic);
}

TEST(CZARNNode, AddressAndStatusCountInComparing) {
  const CZARNNode node(MakeAddress(), 4);
  CZARNNode other = node;
  EXPECT_FALSE(other != node);
  other.status = 5;
  EXPECT_TRUE(other != node);
  EXPECT_FALSE(other == node);
  other = node;
  other.ipaddr.SetPort(1);
  EXPECT_TRUE(other != node);
}

TEST(CZARNNode, JsonIsThatOfTheFile) {
  CZARNNode node(MakeAddress(), 4);
  Json::Value out;
  node.ToJson(out);
  EXPECT_EQ(out.toStyledString(), ReadTestData("node.json"));
  EXPECT_EQ(out.size(), 15U);
}

TEST(CZARNNode, JsonOfADefaultHasStatusOne) {
  Json::Value out;
  CZARNNode().ToJson(out);
  EXPECT_EQ(out["status"].type(), Json::intValue);
  EXPECT_EQ(out["status"].asInt(), 1);
}

TEST(CZARNNode, JsonStatusIsSigned) {
  Json::Value out;
  CZARNNode(CZARNAddress(), 0xFFFFFFFFU).ToJson(out);
  EXPECT_EQ(out["status"].asInt(), -1);
}

TEST(CZARNNode, ValueThatCannotHaveMembersStaysAsItIs) {
  Json::Value number(3);
  CZARNNode().ToJson(number);
  EXPECT_EQ(number.asInt(), 3);
}

}  // namespace
}  // namespace zarn::test
