// ByteQueue.h - a stretch of a byte stream in memory, by offset.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <span>

#include "keelbase/internal/Pool.h"

namespace ptcp {

// Bytes are added at the end and dropped at the beginning; between the two they stay where they
// are, so that a view of them is good until they are dropped. An empty queue holds no buffer.
class ByteQueue {
 public:
  std::uint64_t Begin() const { return begin_; }
  std::uint64_t End() const { return end_; }
  std::size_t Size() const { return static_cast<std::size_t>(end_ - begin_); }

  // Makes sure that `length` bytes can be added without failing. Throws std::bad_alloc.
  void Reserve(std::size_t length) {
    if (chunks_.empty()) base_ = end_;
    while (base_ + chunks_.size() * kChunk < end_ + length) {
      chunks_.push_back(Chunk(static_cast<char*>(keelbase::internal::PoolAllocate(kChunk))));
    }
  }
  void Append(const char* data, std::size_t length) {
    Reserve(length);
    while (length != 0) {
      const std::span<char> place = Place(end_, length);
      std::memcpy(place.data(), data, place.size());
      data += place.size();
      length -= place.size();
      end_ += place.size();
    }
  }

  // The bytes from `from` on, which is not beyond the end, as far as they lie together.
  std::span<char> View(std::uint64_t from) {
    return Place(from, static_cast<std::size_t>(end_ - from));
  }

  // Forgets what lies before `offset`, which is not beyond the end.
  void DropUntil(std::uint64_t offset) {
    begin_ = std::max(begin_, offset);
    while (!chunks_.empty() && (begin_ >= base_ + kChunk || begin_ == end_)) {
      chunks_.pop_front();
      base_ += kChunk;
    }
  }

  std::size_t Read(char* out, std::size_t length) {
    std::size_t done = 0;
    while (done < length && begin_ != end_) {
      const std::span<char> piece = View(begin_);
      const std::size_t count = std::min(piece.size(), length - done);
      std::memcpy(out + done, piece.data(), count);
      done += count;
      DropUntil(begin_ + count);
    }
    return done;
  }

 private:
  static constexpr std::size_t kChunk = std::size_t{32} * 1024;
  struct FreeChunk {
    void operator()(char* memory) const { keelbase::internal::PoolFree(memory, kChunk); }
  };
  using Chunk = std::unique_ptr<char, FreeChunk>;

  std::span<char> Place(std::uint64_t offset, std::size_t length) {
    if (length == 0) return {};
    const auto at = static_cast<std::size_t>(offset - base_);
    return {chunks_[at / kChunk].get() + at % kChunk, std::min(length, kChunk - at % kChunk)};
  }

  std::deque<Chunk> chunks_;
  std::uint64_t base_ = 0;  // offset of the first chunk's first byte
  std::uint64_t begin_ = 0;
  std::uint64_t end_ = 0;
};

}  // namespace ptcp
