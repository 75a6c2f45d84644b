// CAWMessageBlock_test.cpp - every operation of a block and of a chain, at and beyond its bounds.
#include "keelbase/CAWMessageBlock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace keelbase {
namespace {

using Owned = std::unique_ptr<CAWMessageBlock>;

Owned Filled(const std::string& text, std::size_t space = 0) {
  auto block = std::make_unique<CAWMessageBlock>(text.size() + space);
  EXPECT_EQ(block->Write(text.data(), text.size()), AW_OK);
  return block;
}

Owned Borrowed(const std::string& text) {
  return std::make_unique<CAWMessageBlock>(text.data(), text.size(), CAWMessageBlock::borrow);
}

std::string Text(const CAWMessageBlock& block) { return {block.GetReadPtr(), block.GetLength()}; }

// --- one block ---

TEST(CAWMessageBlock, FreshBlockIsEmptyAndHasItsCapacity) {
  CAWMessageBlock block(10);
  EXPECT_EQ(block.GetLength(), 0U);
  EXPECT_EQ(block.GetSpace(), 10U);
  EXPECT_EQ(block.GetNext(), nullptr);
  EXPECT_FALSE(block.IsBorrowed());
  EXPECT_FALSE(block.IsShared());
}

TEST(CAWMessageBlock, WhatIsWrittenIsRead) {
  CAWMessageBlock block(10);
  EXPECT_EQ(block.Write("hello", 5), AW_OK);
  EXPECT_EQ(block.Write(" you", 4), AW_OK);
  EXPECT_EQ(Text(block), "hello you");
  EXPECT_EQ(block.GetSpace(), 1U);
}

TEST(CAWMessageBlock, WriteThatDoesNotFitChangesNothing) {
  const Owned block = Filled("abc", 2);
  EXPECT_EQ(block->Write("xyz", 3), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(*block), "abc");
  EXPECT_EQ(block->GetSpace(), 2U);
  EXPECT_EQ(block->Write("xy", 2), AW_OK);
  EXPECT_EQ(block->Write("z", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(block->Write("z", std::numeric_limits<std::size_t>::max()), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(*block), "abcxy");
}

TEST(CAWMessageBlock, NothingCanBeWrittenFromNowhere) {
  CAWMessageBlock block(0, 4);
  EXPECT_EQ(block.Write(nullptr, 0), AW_OK);
  EXPECT_EQ(block.Prepend(nullptr, 0), AW_OK);
  EXPECT_EQ(block.GetLength(), 0U);
}

TEST(CAWMessageBlock, ReadPointerStopsAtTheWritePointer) {
  const Owned block = Filled("abc", 5);
  EXPECT_EQ(block->AdvanceReadPtr(4), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(*block), "abc");
  EXPECT_EQ(block->AdvanceReadPtr(3), AW_OK);
  EXPECT_EQ(block->GetLength(), 0U);
  EXPECT_EQ(block->AdvanceReadPtr(1), AW_ERROR_FAILURE);
}

TEST(CAWMessageBlock, WritePointerStopsAtTheEnd) {
  CAWMessageBlock block(4);
  char* to = block.GetWritePtr();
  ASSERT_NE(to, nullptr);
  to[0] = 'a';
  to[1] = 'b';
  EXPECT_EQ(block.AdvanceWritePtr(5), AW_ERROR_FAILURE);
  EXPECT_EQ(block.GetLength(), 0U);
  EXPECT_EQ(block.AdvanceWritePtr(2), AW_OK);
  EXPECT_EQ(Text(block), "ab");
  EXPECT_EQ(block.AdvanceWritePtr(std::numeric_limits<std::size_t>::max()), AW_ERROR_FAILURE);
}

TEST(CAWMessageBlock, SizesThatNoMemoryHasAreBadAlloc) {
  constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();
  const auto make = [](std::size_t capacity, std::size_t headroom) {
    const CAWMessageBlock block(capacity, headroom);
  };
  EXPECT_THROW(make(kMax, 0), std::bad_alloc);
  EXPECT_THROW(make(kMax - 10, 100), std::bad_alloc);
  EXPECT_THROW(make(0, kMax), std::bad_alloc);
  EXPECT_THROW(make(100, kMax - 10), std::bad_alloc);
  EXPECT_THROW(make(kMax / 2 + 1, kMax / 2 + 1), std::bad_alloc);
}

// --- borrowed bytes ---

TEST(CAWMessageBlock, BorrowedBytesAreAllReadAndNotWritten) {
  const std::string text = "caller's";
  const Owned block = Borrowed(text);
  EXPECT_TRUE(block->IsBorrowed());
  EXPECT_EQ(block->GetReadPtr(), text.data());
  EXPECT_EQ(Text(*block), text);
  EXPECT_EQ(block->GetSpace(), 0U);
  EXPECT_EQ(block->GetWritePtr(), nullptr);
  EXPECT_EQ(block->Write("x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(block->AdvanceWritePtr(1), AW_ERROR_FAILURE);
  EXPECT_EQ(block->Prepend("x", 1), AW_ERROR_FAILURE);
  EXPECT_EQ(block->Reset(), AW_ERROR_FAILURE);
  EXPECT_EQ(block->AdvanceReadPtr(6), AW_OK);
  EXPECT_EQ(Text(*block), "'s");
}

TEST(CAWMessageBlock, BorrowingNothingIsFine) {
  const CAWMessageBlock block(nullptr, 0, CAWMessageBlock::borrow);
  EXPECT_EQ(block.GetChainedLength(), 0U);
  EXPECT_EQ(block.FlattenChained(), "");
  const Owned copy(block.DuplicateChained());
  EXPECT_EQ(copy->GetChainedLength(), 0U);
}

TEST(CAWMessageBlock, DuplicateOfBorrowedBytesOutlivesThem) {
  auto text = std::make_unique<std::string>("short-lived, but longer than a small string");
  const Owned block = Borrowed(*text);
  const Owned copy(block->DuplicateChained());
  text.reset();
  EXPECT_FALSE(copy->IsBorrowed());
  EXPECT_EQ(Text(*copy), "short-lived, but longer than a small string");
}

TEST(CAWMessageBlock, RestOfBorrowedBytesStaysBorrowed) {
  const std::string text = "frontrest";
  const Owned block = Borrowed(text);
  const Owned rest(block->Disjoint(5));
  ASSERT_NE(rest, nullptr);
  EXPECT_EQ(Text(*block), "front");
  EXPECT_EQ(rest->GetReadPtr(), text.data() + 5);
  EXPECT_TRUE(rest->IsBorrowed());
}

// --- sharing ---

TEST(CAWMessageBlock, DuplicateSharesOwnedBytes) {
  const Owned block = Filled("shared");
  const Owned copy(block->DuplicateChained());
  EXPECT_EQ(copy->GetReadPtr(), block->GetReadPtr());
  EXPECT_TRUE(block->IsShared());
  EXPECT_TRUE(copy->IsShared());
}

TEST(CAWMessageBlock, SharingEndsWithTheDuplicate) {
  const Owned block = Filled("shared");
  Owned(block->DuplicateChained()).reset();
  EXPECT_FALSE(block->IsShared());
}

TEST(CAWMessageBlock, WriterOfSharedBytesGetsItsOwnCopy) {
  const Owned block = Filled("shared", 10);
  const Owned copy(block->DuplicateChained());
  EXPECT_EQ(block->Write(" no more", 8), AW_OK);
  EXPECT_EQ(Text(*block), "shared no more");
  EXPECT_EQ(Text(*copy), "shared");
  EXPECT_FALSE(copy->IsShared());
  EXPECT_EQ(copy->Write("!", 1), AW_OK);
  EXPECT_EQ(Text(*copy), "shared!");
  EXPECT_EQ(Text(*block), "shared no more");
}

TEST(CAWMessageBlock, OwnCopyHasTheSameSpace) {
  const Owned block = Filled("0123456789", 7);
  EXPECT_EQ(block->AdvanceReadPtr(4), AW_OK);
  const Owned copy(block->DuplicateChained());
  EXPECT_EQ(copy->GetSpace(), 7U);
  ASSERT_NE(copy->GetWritePtr(), nullptr);
  EXPECT_EQ(copy->GetSpace(), 7U);
  EXPECT_EQ(Text(*copy), "456789");
}

TEST(CAWMessageBlock, OwnCopyGetsAllItsSpaceAndHeadroomBackByReset) {
  const std::string text(70, 'a');
  CAWMessageBlock block(100, 16);
  EXPECT_EQ(block.Write(text.data(), text.size()), AW_OK);
  Owned copy(block.DuplicateChained());
  EXPECT_EQ(block.AdvanceReadPtr(70), AW_OK);
  EXPECT_EQ(block.Write("own", 3), AW_OK);
  EXPECT_EQ(Text(block), "own");
  EXPECT_EQ(block.Reset(), AW_OK);
  EXPECT_EQ(block.GetSpace(), 100U);
  EXPECT_EQ(block.Write(text.data(), text.size()), AW_OK);
  EXPECT_EQ(block.Prepend("sixteen bytes ..", 16), AW_OK);
  EXPECT_EQ(Text(block), "sixteen bytes .." + text);
}

TEST(CAWMessageBlock, OwnCopyHasTheHeadroomThatIsLeft) {
  CAWMessageBlock block(5, 6);
  EXPECT_EQ(block.Write("body", 4), AW_OK);
  EXPECT_EQ(block.Prepend("head", 4), AW_OK);
  const Owned copy(block.DuplicateChained());
  EXPECT_EQ(copy->Write("!", 1), AW_OK);
  EXPECT_EQ(copy->Prepend("abc", 3), AW_ERROR_FAILURE);
  EXPECT_EQ(copy->Prepend("ab", 2), AW_OK);
  EXPECT_EQ(Text(*copy), "abheadbody!");
  EXPECT_EQ(Text(block), "headbody");
}

TEST(CAWMessageBlock, SenderMayReuseItsBlockAtOnce) {
  CAWMessageBlock block(16);
  std::vector<Owned> sent;
  for (int i = 0; i < 10; ++i) {
    const std::string text = "message " + std::to_string(i);
    if (block.Reset() != AW_OK) {
      EXPECT_EQ(block.AdvanceReadPtr(block.GetLength()), AW_OK);
      ASSERT_NE(block.GetWritePtr(), nullptr);  // leaves the shared bytes
      EXPECT_EQ(block.Reset(), AW_OK);
    }
    const std::size_t fits = std::min(block.GetSpace(), text.size());
    EXPECT_EQ(block.Write(text.data(), fits), AW_OK);
    sent.emplace_back(block.DuplicateChained());
    EXPECT_EQ(Text(*sent.back()), text.substr(0, fits));
  }
  EXPECT_EQ(Text(*sent.front()), "message 0");
}

TEST(CAWMessageBlock, DistinctDuplicatesMayBeUsedOnDistinctThreads) {
  const Owned block = Filled("from many threads", 100);
  std::vector<Owned> copies;
  for (int i = 0; i < 4; ++i) copies.emplace_back(block->DuplicateChained());
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (Owned& copy : copies) {
    threads.emplace_back([&wrong, mine = std::move(copy)] {
      for (int i = 0; i < 1000; ++i) {
        const Owned other(mine->DuplicateChained());
        other->Write("!", 1);
        if (Text(*other) != "from many threads!" || Text(*mine) != "from many threads") ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(Text(*block), "from many threads");
  EXPECT_FALSE(block->IsShared());
}

// --- headroom ---

TEST(CAWMessageBlock, HeadroomTakesWhatIsPrepended) {
  CAWMessageBlock block(4, 6);
  EXPECT_EQ(block.GetSpace(), 4U);
  EXPECT_EQ(block.Write("body", 4), AW_OK);
  EXPECT_EQ(block.Prepend("head", 4), AW_OK);
  EXPECT_EQ(Text(block), "headbody");
  EXPECT_EQ(block.Prepend("abc", 3), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(block), "headbody");
  EXPECT_EQ(block.Prepend("ab", 2), AW_OK);
  EXPECT_EQ(Text(block), "abheadbody");
}

TEST(CAWMessageBlock, OneOfTheSharersClaimsTheHeadroom) {
  CAWMessageBlock block(4, 8);
  EXPECT_EQ(block.Write("body", 4), AW_OK);
  const Owned copy(block.DuplicateChained());
  EXPECT_EQ(copy->Prepend("1st-", 4), AW_OK);
  EXPECT_EQ(block.Prepend("2nd-", 4), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(*copy), "1st-body");
  EXPECT_EQ(Text(block), "body");
  EXPECT_EQ(copy->Prepend("0th-", 4), AW_OK);
  EXPECT_EQ(Text(*copy), "0th-1st-body");
}

TEST(CAWMessageBlock, BytesThatWereReadAreNoHeadroom) {
  CAWMessageBlock block(8, 8);
  EXPECT_EQ(block.Write("readrest", 8), AW_OK);
  const Owned keeper(block.DuplicateChained());
  EXPECT_EQ(block.AdvanceReadPtr(4), AW_OK);
  EXPECT_EQ(block.Prepend("XXXX", 4), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(*keeper), "readrest");
}

TEST(CAWMessageBlock, BytesThatWereReadAreNoHeadroomOfAnOwnCopy) {
  CAWMessageBlock block(9, 8);
  EXPECT_EQ(block.Write("readrest", 8), AW_OK);
  const Owned keeper(block.DuplicateChained());
  EXPECT_EQ(block.AdvanceReadPtr(4), AW_OK);
  EXPECT_EQ(block.Write("!", 1), AW_OK);
  EXPECT_EQ(block.Prepend("XXXX", 4), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(block), "rest!");
}

TEST(CAWMessageBlock, ResetGivesSpaceAndHeadroomBack) {
  CAWMessageBlock block(4, 3);
  EXPECT_EQ(block.Write("body", 4), AW_OK);
  EXPECT_EQ(block.Prepend("abc", 3), AW_OK);
  EXPECT_EQ(block.Reset(), AW_OK);
  EXPECT_EQ(block.GetLength(), 0U);
  EXPECT_EQ(block.GetSpace(), 4U);
  EXPECT_EQ(block.Prepend("xyz", 3), AW_OK);
  EXPECT_EQ(Text(block), "xyz");
}

TEST(CAWMessageBlock, SharedBytesAreNotReset) {
  const Owned block = Filled("kept");
  Owned copy(block->DuplicateChained());
  EXPECT_EQ(block->Reset(), AW_ERROR_FAILURE);
  EXPECT_EQ(Text(*block), "kept");
  copy.reset();
  EXPECT_EQ(block->Reset(), AW_OK);
}

// --- chains ---

TEST(CAWMessageBlock, AppendedBlocksAreOneChain) {
  const Owned chain = Filled("one");
  Owned more = Filled("two");
  more->Append(Filled("three").release());
  chain->Append(more.release());
  chain->Append(nullptr);
  EXPECT_EQ(chain->GetChainedLength(), 11U);
  EXPECT_EQ(chain->FlattenChained(), "onetwothree");
  EXPECT_EQ(chain->GetLength(), 3U);
}

TEST(CAWMessageBlock, ChainIsReadAcrossItsBlocks) {
  const Owned chain = Filled("one");
  chain->Append(Filled("two").release());
  EXPECT_EQ(chain->AdvanceChainedReadPtr(7), AW_ERROR_FAILURE);
  EXPECT_EQ(chain->FlattenChained(), "onetwo");
  EXPECT_EQ(chain->AdvanceChainedReadPtr(4), AW_OK);
  EXPECT_EQ(chain->FlattenChained(), "wo");
  EXPECT_EQ(chain->AdvanceChainedReadPtr(2), AW_OK);
  EXPECT_EQ(chain->GetChainedLength(), 0U);
  EXPECT_EQ(chain->AdvanceChainedReadPtr(0), AW_OK);
  EXPECT_EQ(chain->AdvanceChainedReadPtr(1), AW_ERROR_FAILURE);
}

TEST(CAWMessageBlock, CopyTakesWhatThereIs) {
  const Owned chain = Filled("one");
  chain->Append(Filled("two").release());
  char out[10] = {};
  EXPECT_EQ(chain->CopyChained(out, 4), 4U);
  EXPECT_EQ(std::string(out, 4), "onet");
  EXPECT_EQ(chain->CopyChained(out, sizeof out), 6U);
  EXPECT_EQ(std::string(out, 6), "onetwo");
  EXPECT_EQ(chain->CopyChained(nullptr, 0), 0U);
  EXPECT_EQ(chain->GetChainedLength(), 6U);
}

TEST(CAWMessageBlock, DuplicateLeavesEmptyBlocksOut) {
  const std::string borrowed = "borrowed";
  const Owned chain = Filled("");
  chain->Append(Filled("one").release());
  chain->Append(Filled("").release());
  chain->Append(Borrowed(borrowed).release());
  const Owned copy(chain->DuplicateChained());
  EXPECT_EQ(copy->FlattenChained(), "oneborrowed");
  ASSERT_NE(copy->GetNext(), nullptr);
  EXPECT_EQ(copy->GetNext()->GetNext(), nullptr);
}

TEST(CAWMessageBlock, DuplicateOfNothingIsOneEmptyBlock) {
  const Owned chain = Filled("");
  chain->Append(Filled("").release());
  const Owned copy(chain->DuplicateChained());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->GetLength(), 0U);
  EXPECT_EQ(copy->GetNext(), nullptr);
}

TEST(CAWMessageBlock, CutWithinABlockSharesItsBytes) {
  const Owned chain = Filled("onetwo", 4);
  chain->Append(Filled("three").release());
  const Owned rest(chain->Disjoint(3));
  ASSERT_NE(rest, nullptr);
  EXPECT_EQ(chain->FlattenChained(), "one");
  EXPECT_EQ(rest->FlattenChained(), "twothree");
  EXPECT_EQ(chain->Write("XYZ", 3), AW_OK);
  EXPECT_EQ(chain->FlattenChained(), "oneXYZ");
  EXPECT_EQ(rest->FlattenChained(), "twothree");
}

TEST(CAWMessageBlock, CutBetweenBlocksOnlyUnlinks) {
  const Owned chain = Filled("one");
  chain->Append(Filled("two").release());
  const CAWMessageBlock* second = chain->GetNext();
  const Owned rest(chain->Disjoint(3));
  EXPECT_EQ(rest.get(), second);
  EXPECT_EQ(chain->GetNext(), nullptr);
}

TEST(CAWMessageBlock, CutAtTheStartLeavesAnEmptyFront) {
  const Owned chain = Filled("one");
  const Owned rest(chain->Disjoint(0));
  ASSERT_NE(rest, nullptr);
  EXPECT_EQ(chain->FlattenChained(), "");
  EXPECT_EQ(rest->FlattenChained(), "one");
}

TEST(CAWMessageBlock, CutAtOrBeyondTheEndLeavesNothing) {
  const Owned chain = Filled("one");
  chain->Append(Filled("").release());
  EXPECT_EQ(chain->Disjoint(4), nullptr);
  EXPECT_EQ(chain->Disjoint(3), nullptr);
  EXPECT_EQ(chain->FlattenChained(), "one");
}

TEST(CAWMessageBlock, ReclaimFreesWhatWasReadAtTheFront) {
  Owned chain = Filled("one");
  chain->Append(Filled("two").release());
  chain->Append(Filled("").release());
  EXPECT_EQ(chain->AdvanceChainedReadPtr(4), AW_OK);
  chain.reset(chain.release()->ReclaimGarbage());
  ASSERT_NE(chain, nullptr);
  EXPECT_EQ(Text(*chain), "wo");
  EXPECT_EQ(chain->AdvanceReadPtr(2), AW_OK);
  EXPECT_EQ(chain.release()->ReclaimGarbage(), nullptr);
}

TEST(CAWMessageBlock, LinkedBlocksStayTheCallers) {
  CAWMessageBlock header(4);
  EXPECT_EQ(header.Write("head", 4), AW_OK);
  CAWMessageBlock body(4);
  EXPECT_EQ(body.Write("body", 4), AW_OK);
  {
    const CAWMessageBlock::LinkForCall link(header, body);
    EXPECT_EQ(header.FlattenChained(), "headbody");
    EXPECT_EQ(header.AdvanceChainedReadPtr(6), AW_OK);
  }
  EXPECT_EQ(header.GetNext(), nullptr);
  EXPECT_EQ(Text(body), "dy");
}

TEST(CAWMessageBlock, LongChainsNeedNoStack) {
  constexpr int kBlocks = 100000;
  CAWMessageBlock head(1);
  CAWMessageBlock* last = &head;
  for (int i = 0; i < kBlocks; ++i) {
    last->Append(Filled("x").release());
    last = last->GetNext();
  }
  EXPECT_EQ(head.GetChainedLength(), static_cast<std::size_t>(kBlocks));
  Owned copy(head.DuplicateChained());
  const Owned rest(copy->Disjoint(kBlocks / 2));
  EXPECT_EQ(copy->GetChainedLength() + rest->GetChainedLength(), static_cast<std::size_t>(kBlocks));
  EXPECT_EQ(head.AdvanceChainedReadPtr(kBlocks - 1), AW_OK);
  EXPECT_EQ(head.FlattenChained(), "x");
  EXPECT_EQ(copy->AdvanceChainedReadPtr(kBlocks / 2), AW_OK);
  EXPECT_EQ(copy.release()->ReclaimGarbage(), nullptr);
}

// --- KeepUnread ---

// A chain of `count` blocks of three bytes each.
Owned ChainOf(std::size_t count) {
  Owned chain = Filled("abc");
  for (std::size_t i = 1; i < count; ++i) chain->Append(Filled("abc").release());
  return chain;
}

TEST(CAWMessageBlockKeepUnread, PutsEveryReadPointerBack) {
  for (const std::size_t count : {1, 2, 7, 8, 9, 10, 100}) {
    const Owned chain = ChainOf(count);
    chain->AdvanceReadPtr(1);
    const std::string before = chain->FlattenChained();
    {
      const CAWMessageBlock::KeepUnread keep(*chain);
      EXPECT_EQ(chain->AdvanceChainedReadPtr(chain->GetChainedLength() - 1), AW_OK);
      EXPECT_EQ(chain->GetChainedLength(), 1U);
    }
    EXPECT_EQ(chain->FlattenChained(), before) << count << " blocks";
    const Owned rest(chain->DuplicateChained());
    EXPECT_EQ(rest->FlattenChained(), before);
  }
}

TEST(CAWMessageBlockKeepUnread, PutsThemBackForSharedAndBorrowedBytesToo) {
  const std::string text = "borrowed";
  const Owned owned = Filled("shared");
  const Owned duplicate(owned->DuplicateChained());
  owned->Append(Borrowed(text).release());
  {
    const CAWMessageBlock::KeepUnread keep(*owned);
    owned->AdvanceChainedReadPtr(9);
  }
  EXPECT_EQ(owned->FlattenChained(), "sharedborrowed");
  EXPECT_EQ(Text(*duplicate), "shared");
}

TEST(CAWMessageBlockKeepUnread, WhatWasWrittenMeanwhileStays) {
  const Owned block = Filled("abc", 3);
  {
    const CAWMessageBlock::KeepUnread keep(*block);
    block->AdvanceReadPtr(3);
    EXPECT_EQ(block->Write("def", 3), AW_OK);
  }
  EXPECT_EQ(Text(*block), "abcdef");
}

}  // namespace
}  // namespace keelbase
