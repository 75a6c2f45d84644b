// ReceiveAccumulatorAllocations_test.cpp - received bytes when there is no memory for more.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Exhaustion.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;
using utils::detail::ReceiveAccumulator;

TEST(ReceiveAccumulatorAllocations, BytesThatAreSharedStayAsTheyAreWithoutMemoryForMore) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock chain(8);
  ASSERT_EQ(chain.Write("one,", 4), AW_OK);
  auto* rest = new CAWMessageBlock(8);
  ASSERT_EQ(rest->Write("two,", 4), AW_OK);
  chain.Append(rest);
  EXPECT_EQ(accumulator.Append(chain), AW_OK);  // in a block of its own, with room
  const std::unique_ptr<CAWMessageBlock> kept(accumulator.GetBlock()->DuplicateChained());
  CAWMessageBlock more(4);
  ASSERT_EQ(more.Write("xyz", 3), AW_OK);
  {
    const Exhaustion none;
    EXPECT_EQ(accumulator.Append(more), AW_ERROR_FAILURE);
  }
  EXPECT_EQ(std::string(accumulator.GetData(), accumulator.GetLength()), "one,two,");
  EXPECT_EQ(accumulator.Append(more), AW_OK);
  EXPECT_EQ(std::string(accumulator.GetData(), accumulator.GetLength()), "one,two,xyz");
  EXPECT_EQ(kept->FlattenChained(), "one,two,");
}

}  // namespace
}  // namespace zarn::test
