// CAWMessageBlockAllocations_test.cpp - a block that shares its bytes and finds no memory for bytes
// of its own.
#include <gtest/gtest.h>

#include <memory>

#include "Exhaustion.h"
#include "keelbase/CAWMessageBlock.h"

namespace keelbase {
namespace {

TEST(CAWMessageBlockAllocations, OneThatSharesItsBytesIsWrittenWholeOrNotAtAll) {
  CAWMessageBlock block(100);
  ASSERT_EQ(block.Write("shared", 6), AW_OK);
  const std::unique_ptr<CAWMessageBlock> other(block.DuplicateChained());
  {
    const zarn::test::Exhaustion none;
    EXPECT_EQ(block.GetWritePtr(), nullptr);
    EXPECT_EQ(block.Write(" more", 5), AW_ERROR_FAILURE);
  }
  EXPECT_EQ(block.FlattenChained(), "shared");
  EXPECT_EQ(block.Write(" more", 5), AW_OK);
  EXPECT_EQ(block.FlattenChained(), "shared more");
  EXPECT_EQ(other->FlattenChained(), "shared");
}

}  // namespace
}  // namespace keelbase
