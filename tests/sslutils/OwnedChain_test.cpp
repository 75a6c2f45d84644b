// OwnedChain_test.cpp - chains of bytes that wait.
#include "sslutils/internal/OwnedChain.h"

#include <gtest/gtest.h>

#include <string>

namespace sslutils::internal {
namespace {

using keelbase::CAWMessageBlock;

void Add(OwnedChain& chain, const std::string& text) {
  chain.AddBytes(CAWMessageBlock(text.data(), text.size(), CAWMessageBlock::borrow), 100);
}

CAWMessageBlock* MakeBlock(const std::string& text) {
  auto* block = new CAWMessageBlock(text.size());
  block->Write(text.data(), text.size());
  return block;
}

int CountBlocks(const OwnedChain& chain) {
  int count = 0;
  for (const CAWMessageBlock* block = chain.GetFirst(); block != nullptr; block = block->GetNext())
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
  EXPECT_EQ(chain.GetLength(), 250U);
  EXPECT_EQ(chain.GetFirst()->FlattenChained(), all);
}

TEST(OwnedChain, PieceThatDoesNotFitGoesIntoABlockOfItsOwnWhole) {
  OwnedChain chain;
  Add(chain, "head ");
  Add(chain, std::string(1000, 'x'));
  EXPECT_EQ(CountBlocks(chain), 2);
  EXPECT_EQ(chain.GetFirst()->FlattenChained(), "head " + std::string(1000, 'x'));
}

TEST(OwnedChain, BlocksThatWereReadAreDropped) {
  OwnedChain chain;
  chain.DropRead(0);
  EXPECT_TRUE(chain.IsEmpty());
  Add(chain, std::string(90, 'a'));
  Add(chain, std::string(90, 'b'));
  chain.GetFirst()->AdvanceChainedReadPtr(100);
  chain.DropRead(100);
  EXPECT_EQ(CountBlocks(chain), 1);
  EXPECT_EQ(chain.GetLength(), 80U);
  EXPECT_EQ(chain.GetFirst()->FlattenChained(), std::string(80, 'b'));
  chain.GetFirst()->AdvanceChainedReadPtr(80);
  chain.DropRead(80);
  EXPECT_TRUE(chain.IsEmpty());
  EXPECT_EQ(chain.GetFirst(), nullptr);
}

TEST(OwnedChain, WhatIsAddedToAChainThatWasReadStandsBehindIt) {
  OwnedChain chain;
  for (int round = 0; round < 3; ++round) {
    CAWMessageBlock* const more = MakeBlock("one ");
    more->Append(MakeBlock("two "));
    chain.Append(more);
    Add(chain, "three ");
    chain.Append(MakeBlock("four"));
    EXPECT_EQ(chain.GetLength(), 18U);
    std::string all(100, 0);
    const std::size_t some = chain.Read(all.data(), 5);
    EXPECT_EQ(some, 5U);
    EXPECT_EQ(chain.GetLength(), 13U);
    all.resize(some + chain.Read(all.data() + some, 95));
    EXPECT_EQ(all, "one two three four");
    EXPECT_TRUE(chain.IsEmpty());
  }
}

TEST(OwnedChain, ChainWithoutBytesLeavesItEmpty) {
  OwnedChain chain;
  chain.Append(new CAWMessageBlock(10));
  EXPECT_TRUE(chain.IsEmpty());
  Add(chain, "text");
  chain.Clear();
  EXPECT_TRUE(chain.IsEmpty());
  EXPECT_EQ(chain.GetLength(), 0U);
}

}  // namespace
}  // namespace sslutils::internal
