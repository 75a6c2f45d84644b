// ClientName_test.cpp - the names that connectors bind themselves to.
#include "ClientName.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

namespace fipc {
namespace {

using keelbase::internal::SocketName;

SocketName Raw(const std::string& text) {
  SocketName name;
  name.address.sun_family = AF_UNIX;
  std::memcpy(name.address.sun_path, text.data(), text.size());
  name.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
  return name;
}

std::optional<std::string> Parse(const std::string& text) {
  const SocketName name = Raw(text);
  return ParseClientName(name.address, name.size);
}

std::string Abstract(const std::string& text) { return std::string(1, '\0') + text; }

const std::string kDigits(32, '7');

TEST(ClientName, GivesTheNameBack) {
  for (const char* text : {"1_2", "65535_65535", "x", "with space"}) {
    const auto name = MakeClientName(text);
    ASSERT_TRUE(name);
    EXPECT_EQ(name->address.sun_path[0], '\0');
    EXPECT_EQ(ParseClientName(name->address, name->size), text);
  }
}

TEST(ClientName, IsAnotherOneEachTime) {
  const auto one = MakeClientName("1_2");
  const auto two = MakeClientName("1_2");
  ASSERT_TRUE(one && two);
  EXPECT_EQ(one->size, two->size);
  EXPECT_NE(std::memcmp(&one->address, &two->address, one->size), 0);
}

TEST(ClientName, FitsOrIsNothing) {
  const std::size_t most = sizeof(sockaddr_un::sun_path) - 1 - 9 - 1 - 32;
  EXPECT_TRUE(MakeClientName(std::string(most, 'n')));
  EXPECT_FALSE(MakeClientName(std::string(most + 1, 'n')));
  EXPECT_FALSE(MakeClientName(std::string(5000, 'n')));
}

TEST(ClientName, OtherAddressesHaveNone) {
  EXPECT_EQ(Parse(""), std::nullopt);
  EXPECT_EQ(Parse("/a/file"), std::nullopt);
  EXPECT_EQ(Parse(Abstract("")), std::nullopt);
  EXPECT_EQ(Parse(Abstract("other/3_4/" + kDigits)), std::nullopt);
  EXPECT_EQ(Parse(Abstract("zarn-ipc/")), std::nullopt);
  EXPECT_EQ(Parse(Abstract("zarn-ipc/3_4")), std::nullopt);
  EXPECT_EQ(Parse(Abstract("zarn-ipc/3_4/" + kDigits.substr(1))), std::nullopt);
  EXPECT_EQ(Parse("xzarn-ipc/3_4/" + kDigits), std::nullopt);
  EXPECT_EQ(Parse(Abstract("zarn-ipc/3_4/" + kDigits)), "3_4");
}

TEST(ClientName, NamesThatLeaveTheDirectoryAreNone) {
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"),
        std::string("../1_2"), std::string("a\0b", 3)})
    EXPECT_EQ(Parse(Abstract("zarn-ipc/" + name + "/" + kDigits)), std::nullopt) << name;
}

TEST(ClientName, OtherFamiliesAndSizesHaveNone) {
  SocketName name = Raw(Abstract("zarn-ipc/3_4/" + kDigits));
  EXPECT_EQ(ParseClientName(name.address, 0), std::nullopt);
  EXPECT_EQ(ParseClientName(name.address, 2), std::nullopt);
  EXPECT_EQ(ParseClientName(name.address, sizeof name.address + 1), std::nullopt);
  name.address.sun_family = AF_INET;
  EXPECT_EQ(ParseClientName(name.address, name.size), std::nullopt);
}

}  // namespace
}  // namespace fipc
