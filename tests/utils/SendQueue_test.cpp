// SendQueue_test.cpp - bytes that wait for a transport; the transport is a function of the test.
#include "zarn/utils/detail/SendQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <random>
#include <string>

#include "FakeIpc.h"
#include "keelbase/CAWMessageBlock.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using utils::detail::SendQueue;

void Append(SendQueue& queue, const std::string& bytes) {
  CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
  ASSERT_EQ(queue.Append(block), AW_OK);
}

// Takes up to `limit` bytes and answers as a transport does.
struct Taker {
  std::string taken;
  std::size_t limit = static_cast<std::size_t>(-1);
  std::size_t blocks = 0;  // of the last offer
  AWResult operator()(CAWMessageBlock& block) {
    blocks = 0;
    for (const auto* next = &block; next != nullptr; next = next->GetNext()) ++blocks;
    const std::string bytes = block.FlattenChained();
    const std::size_t size = std::min(limit, bytes.size());
    taken += bytes.substr(0, size);
    block.AdvanceChainedReadPtr(size);
    return size == bytes.size() ? AW_OK : AW_ERROR_PARTIAL_DATA;
  }
  AWResult Take(SendQueue& queue, std::size_t most) {
    limit = most;
    return queue.Offer([this](CAWMessageBlock& block) { return (*this)(block); });
  }
};

TEST(SendQueue, IsEmptyAtFirst) {
  SendQueue queue;
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(queue.GetLength(), 0U);
  queue.Clear();
  EXPECT_TRUE(queue.IsEmpty());
}

TEST(SendQueue, AppendedChainIsNotAdvanced) {
  SendQueue queue;
  CAWMessageBlock block(8);
  block.Write("one,", 4);
  auto* second = new CAWMessageBlock(8);
  second->Write("two", 3);
  block.Append(second);
  EXPECT_EQ(queue.Append(block), AW_OK);
  EXPECT_EQ(block.GetChainedLength(), 7U);
  EXPECT_EQ(queue.GetLength(), 7U);
  Taker taker;
  EXPECT_EQ(taker.Take(queue, 100), AW_OK);
  EXPECT_EQ(taker.taken, "one,two");
}

TEST(SendQueue, OnlyUnreadBytesAreQueued) {
  SendQueue queue;
  CAWMessageBlock block(8);
  block.Write("12345", 5);
  block.AdvanceReadPtr(3);
  queue.Append(block);
  EXPECT_EQ(queue.GetLength(), 2U);
  Taker taker;
  taker.Take(queue, 100);
  EXPECT_EQ(taker.taken, "45");
}

TEST(SendQueue, BorrowedBytesMayChangeAfterTheAppend) {
  SendQueue queue;
  std::string bytes = "as they were";
  Append(queue, bytes);
  bytes.assign(bytes.size(), '#');
  Taker taker;
  taker.Take(queue, 100);
  EXPECT_EQ(taker.taken, "as they were");
}

TEST(SendQueue, LargeOwnedBlockSharesItsBytes) {
  SendQueue queue;
  CAWMessageBlock block(60000);
  block.Write(std::string(60000, 'x').data(), 60000);
  queue.Append(block);
  EXPECT_TRUE(block.IsShared());
  const char* offered = nullptr;
  queue.Offer([&](CAWMessageBlock& head) {
    offered = head.GetReadPtr();
    return AW_ERROR_PARTIAL_DATA;
  });
  EXPECT_EQ(offered, block.GetReadPtr());
  queue.Clear();
  EXPECT_FALSE(block.IsShared());
}

TEST(SendQueue, SmallMessagesAreGathered) {
  SendQueue queue;
  std::string all;
  for (int i = 0; i < 10000; ++i) {
    Append(queue, "0123456789");
    all += "0123456789";
  }
  EXPECT_EQ(queue.GetLength(), 100000U);
  Taker taker;
  EXPECT_EQ(taker.Take(queue, 200000), AW_OK);
  EXPECT_LE(taker.blocks, 4U);  // blocks of 64 KiB
  EXPECT_TRUE(taker.taken == all);
}

TEST(SendQueue, GatheringDoesNotWriteToBytesThatSomebodyElseSees) {
  SendQueue queue;
  CAWMessageBlock block(60000);
  block.Write(std::string(50000, 'x').data(), 50000);
  queue.Append(block);
  Append(queue, "small");
  Taker taker;
  taker.Take(queue, 100000);
  EXPECT_EQ(taker.taken, std::string(50000, 'x') + "small");
  EXPECT_EQ(block.FlattenChained(), std::string(50000, 'x'));
}

TEST(SendQueue, GatheringNeitherTouchesNorMovesBytesThatATransportShares) {
  SendQueue queue;
  Append(queue, "first");
  const char* place = nullptr;
  CAWMessageBlock* duplicate = nullptr;  // as a transport that goes on with it later
  queue.Offer([&](CAWMessageBlock& head) {
    place = head.GetReadPtr();
    duplicate = head.DuplicateChained();
    return AW_ERROR_PARTIAL_DATA;
  });
  Append(queue, "second");
  EXPECT_EQ(duplicate->FlattenChained(), "first");
  queue.Offer([&](CAWMessageBlock& head) {
    EXPECT_EQ(head.GetReadPtr(), place);
    return AW_ERROR_PARTIAL_DATA;
  });
  duplicate->DestroyChained();
  Taker taker;
  taker.Take(queue, 100);
  EXPECT_EQ(taker.taken, "firstsecond");
}

TEST(SendQueue, WhatWasTakenIsDropped) {
  SendQueue queue;
  Append(queue, "0123456789");
  Taker taker;
  EXPECT_EQ(taker.Take(queue, 4), AW_ERROR_PARTIAL_DATA);
  EXPECT_EQ(queue.GetLength(), 6U);
  EXPECT_FALSE(queue.IsEmpty());
  EXPECT_EQ(taker.Take(queue, 6), AW_OK);
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(queue.GetLength(), 0U);
  EXPECT_EQ(taker.taken, "0123456789");
}

// An offer is made with each message: in a long queue it must not walk over all of it.
TEST(SendQueue, NoOfferShowsMoreBlocksThanAPieceHas) {
  constexpr std::size_t kSize = 5000;
  constexpr std::size_t kMessages = 2000;
  SendQueue queue;
  for (std::size_t i = 0; i < kMessages; ++i)
    Append(queue, std::string(kSize, static_cast<char>('a' + i % 26)));
  std::size_t most = 0;
  std::string taken;
  EXPECT_EQ(queue.Offer([&](CAWMessageBlock& block) {
    std::size_t blocks = 0;
    for (const auto* next = &block; next != nullptr; next = next->GetNext()) ++blocks;
    most = std::max(most, blocks);
    taken += block.FlattenChained();
    block.AdvanceChainedReadPtr(block.GetChainedLength());
    return AW_OK;
  }),
            AW_OK);
  EXPECT_LT(most, 250U);
  EXPECT_TRUE(queue.IsEmpty());
  ASSERT_EQ(taken.size(), kMessages * kSize);
  for (std::size_t i = 0; i < kMessages; ++i)
    ASSERT_EQ(taken[i * kSize], static_cast<char>('a' + i % 26));
}

TEST(SendQueue, OfferEndsAtThePieceThatIsNotTakenWhole) {
  SendQueue queue;
  for (int i = 0; i < 400; ++i) Append(queue, std::string(5000, 'x'));
  int offers = 0;
  const AWResult result = queue.Offer([&](CAWMessageBlock& block) {
    const std::size_t take = ++offers == 1 ? block.GetChainedLength() : 7;
    block.AdvanceChainedReadPtr(take);
    return offers == 1 ? AW_OK : AW_ERROR_PARTIAL_DATA;
  });
  EXPECT_EQ(result, AW_ERROR_PARTIAL_DATA);
  EXPECT_EQ(offers, 2);
  const std::size_t left = queue.GetLength();
  Taker taker;
  EXPECT_EQ(taker.Take(queue, 2000000), AW_OK);
  EXPECT_EQ(taker.taken.size(), left);
}

TEST(SendQueue, TransportThatAnswers0WithoutTakingIsAskedOnce) {
  SendQueue queue;
  for (int i = 0; i < 400; ++i) Append(queue, std::string(5000, 'x'));
  int offers = 0;
  EXPECT_EQ(queue.Offer([&](CAWMessageBlock&) {
    ++offers;
    return AW_OK;
  }),
            AW_OK);
  EXPECT_EQ(offers, 1);
  EXPECT_EQ(queue.GetLength(), 2000000U);
}

TEST(SendQueue, NothingTakenLeavesEverything) {
  SendQueue queue;
  Append(queue, "0123456789");
  EXPECT_EQ(queue.Offer([](CAWMessageBlock&) { return AWResult{EPIPE}; }), AWResult{EPIPE});
  EXPECT_EQ(queue.GetLength(), 10U);
}

TEST(SendQueue, CanBeUsedAgainAfterItWasEmptied) {
  SendQueue queue;
  Taker taker;
  for (int i = 0; i < 3; ++i) {
    Append(queue, "again");
    taker.Take(queue, 100);
    EXPECT_TRUE(queue.IsEmpty());
  }
  Append(queue, "gone");
  queue.Clear();
  EXPECT_EQ(queue.GetLength(), 0U);
  Append(queue, "there");
  taker.Take(queue, 100);
  EXPECT_EQ(taker.taken, "againagainagainthere");
}

TEST(SendQueue, LeavesItsBytesToATransportBeforeADisconnect) {
  SendQueue queue;
  keelbase::CAWAutoPtr<FakeTransport> transport(new FakeTransport);
  queue.LeaveTo(*transport);
  EXPECT_EQ(transport->lingerCalls, 0);
  Append(queue, std::string(100, 's'));
  Append(queue, std::string(50000, 'l'));
  queue.LeaveTo(*transport);
  EXPECT_EQ(transport->lingerCalls, 1);
  EXPECT_EQ(transport->lingerData, std::string(100, 's') + std::string(50000, 'l'));
}

TEST(SendQueue, AnyOrderOfAppendingAndTakingKeepsTheBytes) {
  std::mt19937 random(5);  // fixed: the same order every time
  SendQueue queue;
  Taker taker;
  std::string all;
  for (int step = 0; step < 5000; ++step) {
    if (random() % 5 < 3) {
      const std::size_t size = 1 + (random() % 10 == 0 ? random() % 70000 : random() % 100);
      const std::string bytes(size, static_cast<char>('a' + random() % 26));
      if (random() % 2 == 0) {
        Append(queue, bytes);
      } else {
        CAWMessageBlock block(size);
        block.Write(bytes.data(), size);
        ASSERT_EQ(queue.Append(block), AW_OK);
      }
      all += bytes;
    } else if (!queue.IsEmpty()) {
      taker.Take(queue, random() % 3 == 0 ? all.size() : random() % 5000);
    }
    ASSERT_EQ(queue.GetLength() + taker.taken.size(), all.size());
    ASSERT_EQ(queue.IsEmpty(), queue.GetLength() == 0);
  }
  if (!queue.IsEmpty()) taker.Take(queue, all.size());
  EXPECT_TRUE(taker.taken == all);
}

}  // namespace
}  // namespace zarn::test
