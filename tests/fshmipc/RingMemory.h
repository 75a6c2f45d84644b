// RingMemory.h - memory for a small ring, with watched bytes before and behind it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "ShmRing.h"

namespace fshmipc {

class RingMemory {
 public:
  explicit RingMemory(std::size_t size)
      : size_(size), bytes_(size + 2 * kMargin, kUntouched), control_(new RingControl()) {}

  Ring Get() { return {control_.get(), bytes_.data() + kMargin, size_}; }
  RingControl& Control() { return *control_; }

  // Nobody has written outside the ring.
  bool IsWhole() const {
    const auto untouched = [](char byte) { return byte == kUntouched; };
    return std::all_of(bytes_.begin(), bytes_.begin() + kMargin, untouched) &&
           std::all_of(bytes_.end() - kMargin, bytes_.end(), untouched);
  }

 private:
  static constexpr std::ptrdiff_t kMargin = 4096;
  static constexpr char kUntouched = 0x5a;

  const std::size_t size_;
  std::vector<char> bytes_;
  const std::unique_ptr<RingControl> control_;
};

}  // namespace fshmipc
