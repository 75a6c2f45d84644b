// Exhaustion.h - no memory at all for the calling thread.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "FailingAllocations.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/Pool.h"

namespace zarn::test {

// Holds all memory that this thread would get from the pool.
class EmptyPool {
 public:
  EmptyPool() {
    for (std::size_t size = 64; size < 512; size += 64) Drain(size);
    for (std::size_t size = 512; size <= 128 * 1024; size *= 2) Drain(size);
  }
  ~EmptyPool() {
    for (const auto& [piece, size] : pieces_) keelbase::internal::PoolFree(piece, size);
  }
  EmptyPool(const EmptyPool&) = delete;
  EmptyPool& operator=(const EmptyPool&) = delete;

 private:
  void Drain(std::size_t size) {
    for (std::size_t fresh = 0; fresh == 0;) {
      void* piece = nullptr;
      fresh = AllocationsOf([&] { piece = keelbase::internal::PoolAllocate(size); });
      pieces_.emplace_back(piece, size);
    }
  }

  std::vector<std::pair<void*, std::size_t>> pieces_;
};

// Holds the buffers that a loop has ready for its connections: the next ones have to be made.
class EmptyBuffers {
 public:
  explicit EmptyBuffers(keelbase::internal::EventLoop& loop)
      : readBlock_(loop.Buffers().TakeReadBlock().DuplicateChained()) {
    gathers_.reserve(kMaxGathers);
    for (std::size_t fresh = 0; fresh == 0 && gathers_.size() < kMaxGathers;)
      fresh = AllocationsOf([&] { gathers_.push_back(loop.Buffers().TakeGather()); });
  }

 private:
  static constexpr std::size_t kMaxGathers = 64;
  using Gather = keelbase::internal::BufferPool::GatherBuffer;

  const std::unique_ptr<keelbase::CAWMessageBlock> readBlock_;  // who shares it keeps it in use
  std::vector<std::unique_ptr<Gather>> gathers_;
};

// No memory for this thread as long as it lives, nor what earlier tests have left in the pool.
class Exhaustion {
 public:
  Exhaustion() = default;
  Exhaustion(const Exhaustion&) = delete;
  Exhaustion& operator=(const Exhaustion&) = delete;

 private:
  const EmptyPool pool_;
  const FailingAllocation none_{1, true};
};

}  // namespace zarn::test
