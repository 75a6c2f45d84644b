// zarnhash_test.cpp - hash keys of endpoint addresses, below a temporary install root.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

#include "TempRoot.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::test {
namespace {

using fshmipc::CAWShmIPCAddr;
using keelbase::CAWIPCAddr;
using utils::GetHashKey;
using utils::MakeJno;

TEST(GetHashKey, SharedMemoryAddressHasItsFirstNumberInTheLowHalf) {
  EXPECT_EQ(GetHashKey(CAWShmIPCAddr(1, 2)), 0x00020001U);
  EXPECT_EQ(GetHashKey(CAWShmIPCAddr(1, 2)), MakeJno(1, 2));
  EXPECT_EQ(GetHashKey(CAWShmIPCAddr(0xFFFF, 0)), 0x0000FFFFU);
  EXPECT_EQ(GetHashKey(CAWShmIPCAddr(0, 0xFFFF)), 0xFFFF0000U);
  EXPECT_EQ(GetHashKey(CAWShmIPCAddr()), 0U);
}

TEST(GetHashKey, EndpointNameHasItsFirstNumberInTheLowHalf) {
  TempRoot root;
  CAWIPCAddr address;
  ASSERT_EQ(utils::ZARNCreateIPCAddr(7, 3, address), 0U);  // the file 3_7
  EXPECT_EQ(GetHashKey(address), MakeJno(3, 7));
  EXPECT_EQ(GetHashKey(CAWIPCAddr(root.GetIpcPath("1_2"))), 0x00020001U);
}

TEST(GetHashKey, ExtremeNumbersKeepTheirHalves) {
  TempRoot root;
  CAWIPCAddr address;
  ASSERT_EQ(utils::ZARNCreateIPCAddr(0xFFFF, 0, address), 0U);
  EXPECT_EQ(GetHashKey(address), 0xFFFF0000U);
  ASSERT_EQ(utils::ZARNCreateIPCAddr(0, 0xFFFF, address), 0U);
  EXPECT_EQ(GetHashKey(address), 0x0000FFFFU);
}

TEST(GetHashKey, PathThatIsNoEndpointsGivesZero) {
  TempRoot root;
  CAWIPCAddr made;
  ASSERT_EQ(utils::ZARNCreateIPCAddr(1, 2, made), 0U);  // makes the directories
  EXPECT_EQ(GetHashKey(CAWIPCAddr("/")), 0U);
  EXPECT_EQ(GetHashKey(CAWIPCAddr()), 0U);
  EXPECT_EQ(GetHashKey(CAWIPCAddr(root.GetIpcPath("no numbers"))), 0U);
}

TEST(GetHashKey, PathInAnotherDirectoryOfTheSameLengthGivesTheKeyOfItsNumbers) {
  TempRoot root;
  CAWIPCAddr made;
  ASSERT_EQ(utils::ZARNCreateIPCAddr(1, 2, made), 0U);  // makes the directories
  std::string other = root.GetIpcPath("3_7");
  other.replace(other.rfind("/ipc/"), 5, "/old/");
  std::filesystem::create_directory(std::filesystem::path(other).parent_path());
  EXPECT_EQ(GetHashKey(CAWIPCAddr(other)), MakeJno(3, 7));
}

TEST(GetHashKey, NoInstallRootGivesZero) {
  TempRoot root;
  CAWIPCAddr address;
  ASSERT_EQ(utils::ZARNCreateIPCAddr(1, 2, address), 0U);
  ScopedEnv none("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(GetHashKey(address), 0U);
}

TEST(GetHashKey, KeysOfDifferentEndpointsDiffer) {
  TempRoot root;
  std::set<std::uint32_t> keys;
  for (std::uint16_t a = 0; a < 20; ++a) {
    for (std::uint16_t b = 0; b < 20; ++b) {
      CAWIPCAddr address;
      ASSERT_EQ(utils::ZARNCreateIPCAddr(a, b, address), 0U);
      EXPECT_TRUE(keys.insert(GetHashKey(address)).second) << a << "," << b;
    }
  }
}

}  // namespace
}  // namespace zarn::test
