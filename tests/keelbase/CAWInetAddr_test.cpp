// CAWInetAddr_test.cpp - IPv4 addresses; names are looked up only where the local machine answers.
#include "keelbase/CAWInetAddr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <unordered_set>

namespace keelbase {
namespace {

TEST(CAWInetAddr, DefaultAndIntegerConstructionGiveTheZeroAddress) {
  for (const CAWInetAddr& address : {CAWInetAddr(), CAWInetAddr(0)}) {
    EXPECT_EQ(address.GetIpDisplayName(), "0.0.0.0");
    EXPECT_EQ(address.GetPort(), 0);
    EXPECT_EQ(address.GetPtr()->sa_family, AF_INET);
  }
}

TEST(CAWInetAddr, DottedTextIsShownAsItWasGiven) {
  const CAWInetAddr address("192.168.7.255", 8080);
  EXPECT_EQ(address.GetIpDisplayName(), "192.168.7.255");
  EXPECT_EQ(address.GetPort(), 8080);
}

TEST(CAWInetAddr, NumberIsTakenInTheMachinesOrder) {
  const CAWInetAddr address(0x7f000001U, 65535);
  EXPECT_EQ(address.GetIpDisplayName(), "127.0.0.1");
  EXPECT_EQ(address.GetPort(), 65535);
  EXPECT_EQ(address, CAWInetAddr("127.0.0.1", 65535));
}

TEST(CAWInetAddr, SocketAddressIsInNetworkOrder) {
  const CAWInetAddr address("1.2.3.4", 0x1234);
  ASSERT_EQ(address.GetSize(), sizeof(sockaddr_in));
  sockaddr_in raw{};
  std::memcpy(&raw, address.GetPtr(), sizeof(raw));
  EXPECT_EQ(raw.sin_family, AF_INET);
  EXPECT_EQ(raw.sin_port, htons(0x1234));
  EXPECT_EQ(raw.sin_addr.s_addr, htonl(0x01020304));
}

TEST(CAWInetAddr, LocalNameResolves) {
  CAWInetAddr address;
  EXPECT_EQ(address.Set("localhost", 5), AW_OK);
  EXPECT_EQ(address, CAWInetAddr("127.0.0.1", 5));
}

TEST(CAWInetAddr, NameThatDoesNotResolveLeavesZeroAddress) {
  for (const char* name :
       {"no such name", "", "256.1.1.1", "::1", static_cast<const char*>(nullptr)}) {
    CAWInetAddr address("10.0.0.1", 7);
    EXPECT_EQ(address.Set(name, 9), AW_ERROR_FAILURE) << (name != nullptr ? name : "null");
    EXPECT_EQ(address, CAWInetAddr());
    EXPECT_EQ(CAWInetAddr(name, 9), CAWInetAddr());
  }
}

TEST(CAWInetAddr, SetReplacesBothPartsAndSetPortOnlyThePort) {
  CAWInetAddr address("10.0.0.1", 7);
  EXPECT_EQ(address.Set(0x0a000002U, 8), AW_OK);
  EXPECT_EQ(address, CAWInetAddr("10.0.0.2", 8));
  address.SetPort(9);
  EXPECT_EQ(address, CAWInetAddr("10.0.0.2", 9));
}

TEST(CAWInetAddr, DiffersByAddressAndByPort) {
  const CAWInetAddr address("10.0.0.1", 7);
  EXPECT_TRUE(address == CAWInetAddr("10.0.0.1", 7));
  EXPECT_FALSE(address != CAWInetAddr("10.0.0.1", 7));
  EXPECT_TRUE(address != CAWInetAddr("10.0.0.1", 8));
  EXPECT_TRUE(address != CAWInetAddr("10.0.0.2", 7));
  EXPECT_FALSE(address == CAWInetAddr("10.0.0.2", 7));
}

TEST(CAWInetAddr, OrdersByAddressThenPortAsNumbers) {
  EXPECT_LT(CAWInetAddr("1.0.0.2", 0), CAWInetAddr("2.0.0.1", 0));
  EXPECT_LT(CAWInetAddr("10.0.0.1", 65535), CAWInetAddr("10.0.0.2", 1));
  EXPECT_LT(CAWInetAddr("10.0.0.1", 255), CAWInetAddr("10.0.0.1", 256));
  EXPECT_LT(CAWInetAddr("9.0.0.0", 0), CAWInetAddr("200.0.0.0", 0));
  EXPECT_FALSE(CAWInetAddr("10.0.0.1", 7) < CAWInetAddr("10.0.0.1", 7));
}

TEST(CAWInetAddr, EqualAddressesAreOneKeyOfAHashedSet) {
  std::unordered_set<CAWInetAddr> set;
  for (std::uint16_t port = 0; port < 1000; ++port) set.insert(CAWInetAddr("10.0.0.1", port));
  EXPECT_EQ(set.size(), 1000U);
  EXPECT_FALSE(set.insert(CAWInetAddr(0x0a000001U, 999)).second);
  EXPECT_EQ(set.count(CAWInetAddr("10.0.0.2", 999)), 0U);
}

}  // namespace
}  // namespace keelbase
