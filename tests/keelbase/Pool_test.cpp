// Pool_test.cpp - the free lists behind small objects, and the large buffers of a loop.
#include "keelbase/internal/Pool.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "keelbase/internal/BufferPool.h"

namespace keelbase::internal {
namespace {

TEST(Pool, MemoryIsAlignedAndAsLargeAsAsked) {
  std::vector<std::size_t> sizes(1200);
  std::iota(sizes.begin(), sizes.end(), 0);
  for (std::size_t power = 2048; power <= 2 * kMaxPooled; power *= 2) {
    for (std::size_t size = power - 80; size <= power + 80; ++size) sizes.push_back(size);
  }
  std::vector<std::pair<void*, std::size_t>> taken;
  for (const std::size_t size : sizes) {
    void* memory = PoolAllocate(size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U);
    std::memset(memory, static_cast<int>(size % 251), size);
    taken.emplace_back(memory, size);
  }
  for (const auto& [memory, size] : taken) {
    const auto* bytes = static_cast<const unsigned char*>(memory);
    for (std::size_t i = 0; i < size; ++i) ASSERT_EQ(bytes[i], size % 251);
    PoolFree(memory, size);
  }
}

TEST(Pool, NothingIsHandedOutTwice) {
  for (int round = 0; round < 3; ++round) {
    std::set<void*> taken;
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(taken.insert(PoolAllocate(64)).second);
    for (void* memory : taken) PoolFree(memory, 64);
  }
}

TEST(Pool, FreeingNothingIsFine) { PoolFree(nullptr, 64); }

TEST(Pool, MemoryMayBeFreedOnAnotherThread) {
  constexpr std::size_t kSize = 100;
  std::vector<void*> given;
  for (int i = 0; i < 1000; ++i) given.push_back(PoolAllocate(kSize));
  std::set<void*> taken;
  std::thread([&] {
    for (void* memory : given) PoolFree(memory, kSize);
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(taken.insert(PoolAllocate(kSize)).second);
  }).join();
  int number = 0;
  for (void* memory : taken) std::memset(memory, number++ % 251, kSize);
  number = 0;
  for (void* memory : taken) {
    EXPECT_EQ(std::string(static_cast<char*>(memory), kSize),
              std::string(kSize, static_cast<char>(number++ % 251)));
    PoolFree(memory, kSize);
  }
}

struct FreesAtThreadEnd {
  ~FreesAtThreadEnd() { PoolFree(memory, 32); }
  void* memory = nullptr;
};

TEST(Pool, ServesDestructorsOfAThreadThatEnds) {
  std::thread([] {
    thread_local FreesAtThreadEnd late;
    late.memory = PoolAllocate(32);
    PoolFree(PoolAllocate(32), 32);
  }).join();
}

TEST(BufferPool, ReadBlockIsTheSameUntilItsBytesAreKept) {
  BufferPool pool;
  CAWMessageBlock* block = &pool.TakeReadBlock();
  EXPECT_GE(block->GetSpace(), kReadSize);
  EXPECT_EQ(block->Write("abc", 3), AW_OK);
  EXPECT_EQ(&pool.TakeReadBlock(), block);
  EXPECT_EQ(block->GetLength(), 0U);
  EXPECT_EQ(block->Write("kept", 4), AW_OK);
  CAWMessageBlock* kept = block->DuplicateChained();
  CAWMessageBlock& next = pool.TakeReadBlock();
  EXPECT_NE(next.GetReadPtr(), kept->GetReadPtr());
  EXPECT_EQ(next.GetLength(), 0U);
  EXPECT_EQ(kept->FlattenChained(), "kept");
  kept->DestroyChained();
}

TEST(BufferPool, ReadBlockComesBackWithoutWhatAReceiverHasChainedToIt) {
  BufferPool pool;
  CAWMessageBlock& block = pool.TakeReadBlock();
  auto* more = new CAWMessageBlock(8);
  EXPECT_EQ(more->Write("more", 4), AW_OK);
  block.Append(more);
  EXPECT_EQ(&pool.TakeReadBlock(), &block);
  EXPECT_EQ(block.GetNext(), nullptr);
  EXPECT_EQ(block.GetChainedLength(), 0U);
}

TEST(BufferPool, ReadBlockHasHeadroomForTheStartOfACutFrame) {
  BufferPool pool;
  const CAWString start(kGatherSize, 's');
  CAWMessageBlock& block = pool.TakeReadBlock();
  EXPECT_EQ(block.Write("rest", 4), AW_OK);
  EXPECT_EQ(block.Prepend(start.data(), start.size()), AW_OK);
  EXPECT_EQ(block.FlattenChained(), start + "rest");
}

TEST(BufferPool, GatherBuffersAreUsedAgain) {
  BufferPool pool;
  auto buffer = pool.TakeGather();
  const auto* address = buffer.get();
  pool.GiveGather(std::move(buffer));
  EXPECT_EQ(pool.TakeGather().get(), address);
}

TEST(BufferPool, KeepsAFewBuffersOnly) {
  BufferPool pool;
  std::vector<std::unique_ptr<BufferPool::GatherBuffer>> all;
  for (int i = 0; i < 100; ++i) all.push_back(pool.TakeGather());
  for (auto& buffer : all) pool.GiveGather(std::move(buffer));
  for (const auto& buffer : all) EXPECT_EQ(buffer, nullptr);
}

}  // namespace
}  // namespace keelbase::internal
