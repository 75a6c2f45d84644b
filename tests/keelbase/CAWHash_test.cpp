// CAWHash_test.cpp - the hash of bytes.
#include "keelbase/CAWHash.h"

#include <gtest/gtest.h>

#include <bitset>
#include <cstring>
#include <set>

namespace keelbase {
namespace {

TEST(CAWHash, HasItsPublishedValues) {
  EXPECT_EQ(hash_bytes("", 0, 0), 0x02CC5D05U);
  EXPECT_EQ(hash_bytes("a", 1, 0), 0x550D7456U);
  EXPECT_EQ(hash_bytes("abc", 3, 0), 0x32D153FFU);
}

TEST(CAWHash, NullWithoutLengthIsTheEmptyText) {
  EXPECT_EQ(hash_bytes(nullptr, 0, 7), hash_bytes("", 0, 7));
}

TEST(CAWHash, SeedAndEveryByteCount) {
  char bytes[16] = {};
  std::set<std::uint32_t> seen{hash_bytes(bytes, sizeof(bytes), 0)};
  EXPECT_TRUE(seen.insert(hash_bytes(bytes, sizeof(bytes), 1)).second);
  EXPECT_TRUE(seen.insert(hash_bytes(bytes, sizeof(bytes) - 1, 0)).second);
  for (char& byte : bytes) {
    byte = 1;
    EXPECT_TRUE(seen.insert(hash_bytes(bytes, sizeof(bytes), 0)).second);
    byte = 0;
  }
}

TEST(CAWHash, OneBitOfTheInputChangesHalfOfTheResult) {
  std::size_t changed = 0;
  constexpr std::uint64_t kInputs = 1000;
  for (std::uint64_t input = 0; input < kInputs; ++input) {
    const std::uint64_t other = input ^ 1;
    const std::uint32_t difference =
        hash_bytes(&input, sizeof(input), 0) ^ hash_bytes(&other, sizeof(other), 0);
    changed += std::bitset<32>(difference).count();
  }
  EXPECT_NEAR(static_cast<double>(changed) / kInputs, 16.0, 1.0);
}

}  // namespace
}  // namespace keelbase
