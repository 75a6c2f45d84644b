// CZARNAddress_test.cpp - endpoint addresses: copying, comparing, printing, JSON.
#include "zarn/utils/CZARNAddress.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <new>
#include <type_traits>
#include <vector>

#include "Addresses.h"
#include "TestData.h"

namespace zarn::test {
namespace {

using keelbase::CAWInetAddr;
using utils::CZARNAddress;

static_assert(!std::is_polymorphic_v<CZARNAddress>);

using Change = std::function<void(CZARNAddress&)>;

std::vector<Change> ChangesOfLogicalAddress() {
  return {[](CZARNAddress& address) { ++address.jno; },
          [](CZARNAddress& address) { ++address.serviceno; },
          [](CZARNAddress& address) { ++address.tno; },
          [](CZARNAddress& address) { address.SetClusterId(8); },
          [](CZARNAddress& address) { address.SetDataCenterId(8); },
          [](CZARNAddress& address) { address.SetNodeId(8); }};
}

TEST(CZARNAddress, DefaultIsEmpty) {
  const CZARNAddress address;
  EXPECT_EQ(address.jno, 0U);
  EXPECT_EQ(address.serviceno, 0U);
  EXPECT_EQ(address.tno, 0U);
  EXPECT_EQ(address.p2pcap, 0U);
  EXPECT_FALSE(address.ispublic);
  EXPECT_EQ(address.GetClusterId(), 0U);
  EXPECT_EQ(address.GetDataCenterId(), 0U);
  EXPECT_EQ(address.GetNodeId(), 0U);
  EXPECT_EQ(address.pubipaddr, CAWInetAddr());
  EXPECT_EQ(address.ipaddr, CAWInetAddr());
  EXPECT_EQ(address.controlleripaddr, CAWInetAddr());
}

// --- copying ---

TEST(CZARNAddress, CopyHasEverythingButTheFlag) {
  const CZARNAddress original = MakeAddress();
  const CZARNAddress& address = original;
  CZARNAddress assigned;
  assigned = address;
  const CZARNAddress constructed(address);
  for (const CZARNAddress& copy : {std::cref(assigned), std::cref(constructed)}) {
    EXPECT_EQ(copy, address);
    EXPECT_EQ(copy.p2pcap, 12U);
    EXPECT_EQ(copy.pubipaddr, address.pubipaddr);
    EXPECT_EQ(copy.controlleripaddr, address.controlleripaddr);
  }
}

TEST(CZARNAddress, AssignmentLeavesTheFlagOfItsTarget) {
  CZARNAddress source = MakeAddress();
  source.ispublic = true;
  CZARNAddress target;
  target = source;
  EXPECT_FALSE(target.ispublic);
  target.ispublic = true;
  source.ispublic = false;
  target = source;
  EXPECT_TRUE(target.ispublic);
}

TEST(CZARNAddress, FlagOfACopyMayBeReadWhateverLayThereBefore) {
  alignas(CZARNAddress) unsigned char memory[sizeof(CZARNAddress)];
  std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xA5));
  const CZARNAddress source = MakeAddress();
  const auto* copy = new (memory) CZARNAddress(source);
  EXPECT_FALSE(copy->ispublic);
  copy->~CZARNAddress();
}

TEST(CZARNAddress, AssignmentToItselfChangesNothing) {
  CZARNAddress address = MakeAddress();
  address.ispublic = true;
  const CZARNAddress& same = address;
  address = same;
  EXPECT_EQ(address, MakeAddress());
  EXPECT_TRUE(address.ispublic);
}

// --- comparing ---

TEST(CZARNAddress, DifferentNumbersOrNodesAreDifferentEndpoints) {
  for (const Change& change : ChangesOfLogicalAddress()) {
    CZARNAddress address = MakeAddress();
    change(address);
    EXPECT_FALSE(address == MakeAddress());
    EXPECT_TRUE(address != MakeAddress());
    EXPECT_FALSE(address.IsEqualsToLogicalAddress(MakeAddress()));
  }
}

TEST(CZARNAddress, PublicAndControllerAddressCapabilityAndFlagDoNotCount) {
  CZARNAddress address = MakeAddress();
  address.pubipaddr.SetPort(1);
  address.controlleripaddr.SetPort(1);
  address.p2pcap = 0;
  address.ispublic = false;
  EXPECT_TRUE(address == MakeAddress());
  EXPECT_FALSE(address != MakeAddress());
}

TEST(CZARNAddress, AnotherPrivateAddressIsLogicallyTheSame) {
  CZARNAddress address = MakeAddress();
  address.ipaddr.SetPort(1);
  EXPECT_FALSE(address == MakeAddress());
  EXPECT_TRUE(address.IsEqualsToLogicalAddress(MakeAddress()));
}

// --- printing ---

TEST(CZARNAddress, TextIsDataCentreClusterNodeJobService) {
  EXPECT_EQ(MakeAddress().ToString(), "2/7/31/5/1");
  EXPECT_EQ(CZARNAddress().ToString(), "0/0/0/0/0");
}

TEST(CZARNAddress, TextIsUnsigned) {
  CZARNAddress address;
  address.SetDataCenterId(0xFFFFFFFFU);
  address.SetClusterId(0x80000000U);
  address.jno = 0xFFFF;
  EXPECT_EQ(address.ToString(), "4294967295/2147483648/0/65535/0");
}

TEST(CZARNAddress, DumpDoesNothing) {
  const CZARNAddress address = MakeAddress();
  ::testing::internal::CaptureStdout();
  address.Dump();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(address, MakeAddress());
}

// --- JSON ---

TEST(CZARNAddress, JsonIsThatOfTheFile) {
  Json::Value out;
  CZARNAddress address = MakeAddress();
  address.ispublic = true;
  address.ToJson(out);
  EXPECT_EQ(out.toStyledString(), ReadTestData("address.json"));
}

TEST(CZARNAddress, JsonOfADefaultIsThatOfTheFile) {
  Json::Value out;
  CZARNAddress().ToJson(out);
  EXPECT_EQ(out.toStyledString(), ReadTestData("address_default.json"));
}

TEST(CZARNAddress, JsonHasSignedIntegersButForTheNode) {
  Json::Value out;
  MakeAddress().ToJson(out);
  EXPECT_EQ(out.size(), 14U);
  for (const auto& key : out.getMemberNames()) {
    const bool isText = key == "pubipaddr" || key == "ipaddr" || key == "controlleripaddr";
    const Json::ValueType number = key == "nodeid" ? Json::uintValue : Json::intValue;
    EXPECT_EQ(out[key].type(), isText ? Json::stringValue : number) << key;
  }
}

TEST(CZARNAddress, JsonOfLargeNumbersKeepsTheirKinds) {
  CZARNAddress address;
  address.jno = address.serviceno = address.tno = 65535;
  address.p2pcap = 0xFFFFFFFFU;
  address.SetClusterId(0x80000000U);
  address.SetDataCenterId(0x7FFFFFFFU);
  address.SetNodeId(0xFFFFFFFFU);
  address.ipaddr.SetPort(65535);
  Json::Value out;
  address.ToJson(out);
  EXPECT_EQ(out["jno"].asInt(), 65535);
  EXPECT_EQ(out["serviceno"].asInt(), 65535);
  EXPECT_EQ(out["tno"].asInt(), 65535);
  EXPECT_EQ(out["p2pcap"].asInt(), -1);
  EXPECT_EQ(out["clusterid"].asInt64(), -2147483648LL);
  EXPECT_EQ(out["datacenterid"].asInt(), 2147483647);
  EXPECT_EQ(out["nodeid"].type(), Json::uintValue);
  EXPECT_EQ(out["nodeid"].asUInt(), 4294967295U);
  EXPECT_EQ(out["ipaddr_port"].asInt(), 65535);
}

TEST(CZARNAddress, JsonKeepsOtherMembersAndReplacesItsOwn) {
  Json::Value out;
  out["other"] = 1;
  out["ispublic"] = true;
  MakeAddress().ToJson(out);
  EXPECT_EQ(out.size(), 15U);
  EXPECT_EQ(out["other"].asInt(), 1);
  EXPECT_EQ(out["ispublic"].type(), Json::intValue);
}

TEST(CZARNAddress, ValueThatCannotHaveMembersStaysAsItIs) {
  Json::Value array(Json::arrayValue);
  array.append(1);
  MakeAddress().ToJson(array);
  EXPECT_EQ(array.size(), 1U);
}

}  // namespace
}  // namespace zarn::test
