// BufferPool.h - the large buffers of one loop: connections hold one only while they need it.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "keelbase/CAWMessageBlock.h"

namespace keelbase::internal {

inline constexpr std::size_t kReadSize = 65535;    // what one read takes at most
inline constexpr std::size_t kGatherSize = 65536;  // what a connection gathers before it writes

// Loop thread only. Everything that makes a buffer may throw std::bad_alloc.
class BufferPool {
 public:
  using GatherBuffer = std::array<char, kGatherSize>;

  std::unique_ptr<GatherBuffer> TakeGather() {
    // for_overwrite: the bytes are written before they are read.
    if (gathers_.empty()) return std::make_unique_for_overwrite<GatherBuffer>();
    auto buffer = std::move(gathers_.back());
    gathers_.pop_back();
    return buffer;
  }
  void GiveGather(std::unique_ptr<GatherBuffer> buffer) noexcept {
    if (gathers_.size() < gathers_.capacity()) gathers_.push_back(std::move(buffer));
  }

  // An empty block for one read, with headroom so that a receiver can put the start of a cut frame
  // in front of what comes. The same one again, without what a receiver has chained to it, unless
  // somebody has kept its bytes.
  CAWMessageBlock& TakeReadBlock() {
    if (readBlock_ == nullptr || readBlock_->Reset() != AW_OK) {
      readBlock_ = std::make_unique<CAWMessageBlock>(kReadSize, kGatherSize);
    } else if (readBlock_->GetNext() != nullptr) {
      delete readBlock_->Disjoint(0);
    }
    return *readBlock_;
  }

  BufferPool() { gathers_.reserve(kKeptGathers); }

 private:
  static constexpr std::size_t kKeptGathers = 16;
  std::vector<std::unique_ptr<GatherBuffer>> gathers_;
  std::unique_ptr<CAWMessageBlock> readBlock_;
};

}  // namespace keelbase::internal
