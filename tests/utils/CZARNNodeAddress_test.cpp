// CZARNNodeAddress_test.cpp - where a node is, and its JSON.
#include "zarn/utils/CZARNNodeAddress.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include "TestData.h"

namespace zarn::test {
namespace {

using utils::CZARNNodeAddress;

CZARNNodeAddress MakeNodeAddress() {
  CZARNNodeAddress address;
  address.clusterid = 7;
  address.datacenterid = 2;
  address.nodeid = 31;
  return address;
}

TEST(CZARNNodeAddress, DefaultIsAllZero) {
  const CZARNNodeAddress address;
  EXPECT_EQ(address.clusterid, 0U);
  EXPECT_EQ(address.datacenterid, 0U);
  EXPECT_EQ(address.nodeid, 0U);
}

TEST(CZARNNodeAddress, EachFieldCountsInComparing) {
  const CZARNNodeAddress address = MakeNodeAddress();
  CZARNNodeAddress other = address;
  EXPECT_TRUE(other == address);
  EXPECT_FALSE(other != address);
  for (auto field :
       {&CZARNNodeAddress::clusterid, &CZARNNodeAddress::datacenterid, &CZARNNodeAddress::nodeid}) {
    other = address;
    ++(other.*field);
    EXPECT_FALSE(other == address);
    EXPECT_TRUE(other != address);
  }
}

TEST(CZARNNodeAddress, AssignmentToItselfChangesNothing) {
  CZARNNodeAddress address = MakeNodeAddress();
  const CZARNNodeAddress& same = address;
  address = same;
  EXPECT_EQ(address, MakeNodeAddress());
}

TEST(CZARNNodeAddress, JsonIsThatOfTheFile) {
  Json::Value out;
  MakeNodeAddress().ToJson(out);
  EXPECT_EQ(out.toStyledString(), ReadTestData("node_address.json"));
}

TEST(CZARNNodeAddress, JsonHasSignedIntegersOnly) {
  CZARNNodeAddress address;
  address.clusterid = 0x7FFFFFFFU;
  address.datacenterid = 0x80000000U;
  address.nodeid = 0xFFFFFFFFU;
  Json::Value out;
  address.ToJson(out);
  for (const Json::Value& member : out) EXPECT_EQ(member.type(), Json::intValue);
  EXPECT_EQ(out["clusterid"].asInt(), 2147483647);
  EXPECT_EQ(out["datacenterid"].asInt64(), -2147483648LL);
  EXPECT_EQ(out["nodeid"].asInt(), -1);
}

TEST(CZARNNodeAddress, JsonKeepsOtherMembersAndReplacesItsOwn) {
  Json::Value out;
  out["other"] = "stays";
  out["nodeid"] = "goes";
  MakeNodeAddress().ToJson(out);
  EXPECT_EQ(out.size(), 4U);
  EXPECT_EQ(out["other"].asString(), "stays");
  EXPECT_EQ(out["nodeid"].asInt(), 31);
}

TEST(CZARNNodeAddress, ValueThatCannotHaveMembersStaysAsItIs) {
  Json::Value array(Json::arrayValue);
  Json::Value text("text");
  MakeNodeAddress().ToJson(array);
  MakeNodeAddress().ToJson(text);
  EXPECT_TRUE(array.isArray() && array.empty());
  EXPECT_EQ(text.asString(), "text");
}

}  // namespace
}  // namespace zarn::test
