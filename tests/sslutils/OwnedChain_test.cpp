// OwnedChain_test.cpp - chains of bytes that wait.
#include "OwnedChain.h"

#include <gtest/gtest.h>

#include <string>

namespace sslutils::internal {
namespace {

using keelbase::CAWMessageBlock;

void Add(OwnedChain& chain, const std::string& text) {
  AddBytes(chain, CAWMessageBlock(text.data(), text.size(), CAWMessageBlock::borrow), 100);
}

int CountBlocks(const OwnedChain& chain) {
  int count = 0;
  for (const CAWMessageBlock* block = chain.get(); block != nullptr; block = block->GetNext())
    ++count;
  return count;
}

TEST(OwnedChain, SmallPiecesShareABlockUntilItIsFull) {
  OwnedChain chain;
  std::string all;
  for (int i = 0; i < 250; ++i) {
    Add(chain, std::to_string(i % 10));
    all += std::to_string(i % 10);
  }
  EXPECT_EQ(CountBlocks(chain), 3);
  EXPECT_EQ(chain->FlattenChained(), all);
}

TEST(OwnedChain, PieceThatDoesNotFitGoesIntoABlockOfItsOwnWhole) {
  OwnedChain chain;
  Add(chain, "head ");
  Add(chain, std::string(1000, 'x'));
  EXPECT_EQ(CountBlocks(chain), 2);
  EXPECT_EQ(chain->FlattenChained(), "head " + std::string(1000, 'x'));
}

TEST(OwnedChain, BlocksThatWereReadAreDroppedAndAnEmptyOneIsNull) {
  OwnedChain chain;
  DropRead(chain);
  EXPECT_EQ(chain, nullptr);
  Add(chain, std::string(90, 'a'));
  Add(chain, std::string(90, 'b'));
  chain->AdvanceChainedReadPtr(100);
  DropRead(chain);
  EXPECT_EQ(CountBlocks(chain), 1);
  EXPECT_EQ(chain->FlattenChained(), std::string(80, 'b'));
  chain->AdvanceChainedReadPtr(80);
  DropRead(chain);
  EXPECT_EQ(chain, nullptr);
}

}  // namespace
}  // namespace sslutils::internal
