// ReceiveAccumulator_test.cpp - received bytes in one piece, and how often they are copied on the
// way.
#include "zarn/utils/detail/ReceiveAccumulator.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <string>

#include "keelbase/CAWMessageBlock.h"

namespace zarn::test {
namespace {

using keelbase::AW_OK;
using keelbase::CAWMessageBlock;
using utils::detail::ReceiveAccumulator;

void Fill(CAWMessageBlock& block, const std::string& bytes) {
  ASSERT_EQ(block.Write(bytes.data(), bytes.size()), AW_OK);
}

std::string Bytes(const ReceiveAccumulator& accumulator) {
  return {accumulator.GetData(), accumulator.GetLength()};
}

void Append(ReceiveAccumulator& accumulator, const std::string& bytes) {
  CAWMessageBlock block(bytes.size());
  Fill(block, bytes);
  ASSERT_EQ(accumulator.Append(block), AW_OK);
}

TEST(ReceiveAccumulator, HoldsNothingAtFirst) {
  ReceiveAccumulator accumulator;
  EXPECT_EQ(accumulator.GetLength(), 0U);
  accumulator.Consume(0);
  accumulator.Clear();
  EXPECT_EQ(accumulator.GetLength(), 0U);
}

TEST(ReceiveAccumulator, SingleBlockIsViewedInPlaceAndNotAdvanced) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock block(16);
  Fill(block, "in place");
  EXPECT_EQ(accumulator.Append(block), AW_OK);
  EXPECT_EQ(accumulator.GetData(), block.GetReadPtr());
  EXPECT_EQ(accumulator.GetLength(), 8U);
  EXPECT_EQ(block.GetLength(), 8U);
}

TEST(ReceiveAccumulator, BytesOutliveTheBlockTheyCameIn) {
  ReceiveAccumulator accumulator;
  Append(accumulator, "outlive");
  EXPECT_EQ(Bytes(accumulator), "outlive");
}

TEST(ReceiveAccumulator, BorrowedBytesAreCopied) {
  ReceiveAccumulator accumulator;
  std::string bytes = "borrowed";
  CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(accumulator.Append(block), AW_OK);
  bytes.assign(bytes.size(), '#');
  EXPECT_EQ(Bytes(accumulator), "borrowed");
}

TEST(ReceiveAccumulator, OwnerOfTheBlockMayWriteOnWithoutDisturbingTheBytes) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock block(16);
  Fill(block, "mine");
  EXPECT_EQ(accumulator.Append(block), AW_OK);
  Fill(block, "yours");
  EXPECT_EQ(Bytes(accumulator), "mine");
}

TEST(ReceiveAccumulator, ChainBecomesOnePiece) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock block(8);
  Fill(block, "one,");
  auto* second = new CAWMessageBlock(8);
  block.Append(second);  // empty
  auto* third = new CAWMessageBlock(8);
  Fill(*third, "two");
  block.Append(third);
  EXPECT_EQ(accumulator.Append(block), AW_OK);
  EXPECT_EQ(Bytes(accumulator), "one,two");
}

TEST(ReceiveAccumulator, BlockWithoutBytesAddsNothing) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock empty(8);
  EXPECT_EQ(accumulator.Append(empty), AW_OK);
  EXPECT_EQ(accumulator.GetLength(), 0U);
  Append(accumulator, "x");
  EXPECT_EQ(accumulator.Append(empty), AW_OK);
  EXPECT_EQ(Bytes(accumulator), "x");
}

TEST(ReceiveAccumulator, ConsumeDropsTheFrontAndKeepsTheRest) {
  ReceiveAccumulator accumulator;
  Append(accumulator, "frontrest");
  accumulator.Consume(5);
  EXPECT_EQ(Bytes(accumulator), "rest");
  Append(accumulator, "+more");
  EXPECT_EQ(Bytes(accumulator), "rest+more");
  accumulator.Consume(9);
  EXPECT_EQ(accumulator.GetLength(), 0U);
}

TEST(ReceiveAccumulator, ClearDropsEverythingAndCanBeUsedAgain) {
  ReceiveAccumulator accumulator;
  Append(accumulator, "old");
  accumulator.Clear();
  EXPECT_EQ(accumulator.GetLength(), 0U);
  Append(accumulator, "new");
  EXPECT_EQ(Bytes(accumulator), "new");
}

TEST(ReceiveAccumulator, ConsumingAllLetsTheReceivedBlockGo) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock block(65536);
  Fill(block, std::string(60000, 'x'));
  accumulator.Append(block);
  EXPECT_TRUE(block.IsShared());
  accumulator.Consume(60000);
  EXPECT_FALSE(block.IsShared());
}

TEST(ReceiveAccumulator, ShortRestLetsTheReceivedBlockGo) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock block(65536);
  Fill(block, std::string(60000, 'x') + std::string(4096, 'r'));
  accumulator.Append(block);
  accumulator.Consume(60000);
  EXPECT_FALSE(block.IsShared());
  EXPECT_EQ(Bytes(accumulator), std::string(4096, 'r'));
}

TEST(ReceiveAccumulator, ShortStartOfAFrameLetsTheReceivedBlockGoToo) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock block(65536);
  Fill(block, "half");
  accumulator.Append(block);
  accumulator.Consume(0);
  EXPECT_FALSE(block.IsShared());
  EXPECT_EQ(Bytes(accumulator), "half");
}

TEST(ReceiveAccumulator, LongRestStaysWhereItIs) {
  ReceiveAccumulator accumulator;
  CAWMessageBlock block(65536);
  Fill(block, std::string(65000, 'x'));
  accumulator.Append(block);
  accumulator.Consume(5000);
  EXPECT_EQ(accumulator.GetData(), block.GetReadPtr() + 5000);
}

TEST(ReceiveAccumulator, StartOfAFrameIsPutInFrontOfALongerBlockWithRoom) {
  ReceiveAccumulator accumulator;
  Append(accumulator, "start");
  accumulator.Consume(0);
  CAWMessageBlock block(65536, 4096);
  Fill(block, std::string(60000, 'x'));
  EXPECT_EQ(accumulator.Append(block), AW_OK);
  EXPECT_EQ(accumulator.GetData() + 5, block.GetReadPtr());  // the 60000 bytes were not moved
  EXPECT_EQ(Bytes(accumulator), "start" + std::string(60000, 'x'));
}

TEST(ReceiveAccumulator, BlockWithoutRoomInFrontIsAddedAllTheSame) {
  ReceiveAccumulator accumulator;
  Append(accumulator, "start");
  CAWMessageBlock block(65536);
  Fill(block, std::string(60000, 'x'));
  EXPECT_EQ(accumulator.Append(block), AW_OK);
  EXPECT_EQ(Bytes(accumulator), "start" + std::string(60000, 'x'));
}

// Every move of the bytes shows as another address. Pieces that are copied once each move only when
// the space is doubled: a handful of times, not a thousand.
TEST(ReceiveAccumulator, FrameInAThousandPiecesMovesAHandfulOfTimes) {
  for (const std::size_t piece : {1U, 60U, 1000U, 4097U}) {
    ReceiveAccumulator accumulator;
    std::string all;
    const char* at = nullptr;
    int moves = 0;
    for (int i = 0; i < 1000; ++i) {
      const std::string bytes(piece, static_cast<char>('a' + i % 26));
      all += bytes;
      Append(accumulator, bytes);
      accumulator.Consume(0);  // no whole frame yet
      if (accumulator.GetData() != at) ++moves;
      at = accumulator.GetData();
    }
    EXPECT_TRUE(Bytes(accumulator) == all) << piece;
    EXPECT_LE(moves, 12) << piece;
  }
}

TEST(ReceiveAccumulator, AnyOrderOfAppendingAndConsumingKeepsTheBytes) {
  std::mt19937 random(99);  // fixed: the same order every time
  for (int round = 0; round < 20; ++round) {
    ReceiveAccumulator accumulator;
    std::string expected;
    for (int step = 0; step < 300; ++step) {
      const std::size_t size = random() % 4 == 0 ? random() % 65536 : random() % 64;
      CAWMessageBlock block(size + random() % 8, random() % 2 == 0 ? 4096 : 0);
      std::string bytes(size, static_cast<char>('a' + random() % 26));
      Fill(block, bytes);
      if (random() % 3 == 0) {
        auto* second = new CAWMessageBlock(3);
        Fill(*second, "...");
        block.Append(second);
        bytes += "...";
      }
      ASSERT_EQ(accumulator.Append(block), AW_OK);
      expected += bytes;
      if (step % 4 != 0) {
        const std::size_t consumed =
            random() % 2 == 0 ? expected.size() : random() % (expected.size() + 1);
        accumulator.Consume(consumed);
        expected.erase(0, consumed);
      }
      ASSERT_TRUE(Bytes(accumulator) == expected);
    }
  }
}

}  // namespace
}  // namespace zarn::test
