// CZARNConfigItem_test.cpp - a key and its value.
#include "zarn/utils/CZARNConfigItem.h"

#include <gtest/gtest.h>

#include <string>

namespace zarn::test {
namespace {

using utils::CZARNConfigItem;

TEST(CZARNConfigItem, DefaultIsEmpty) {
  const CZARNConfigItem item;
  EXPECT_EQ(item.key, "");
  EXPECT_EQ(item.value, "");
}

TEST(CZARNConfigItem, TakesKeyAndValueInThisOrder) {
  const CZARNConfigItem item("log.level", std::string("3\0x", 3));
  EXPECT_EQ(item.key, "log.level");
  EXPECT_EQ(item.value, std::string("3\0x", 3));
}

TEST(CZARNConfigItem, CopiesBoth) {
  const CZARNConfigItem item("key", "value");
  const CZARNConfigItem constructed(item);
  CZARNConfigItem assigned("other", "other");
  assigned = item;
  EXPECT_EQ(constructed.key + "=" + constructed.value, "key=value");
  EXPECT_EQ(assigned.key + "=" + assigned.value, "key=value");
}

}  // namespace
}  // namespace zarn::test
