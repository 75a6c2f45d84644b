// Exhaustion.h - no memory at all for the calling thread.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "FailingAllocations.h"
#include "keelbase/CAWMessageBlock.h"

namespace zarn::test {

// No memory for this thread as long as it lives, nor what earlier tests have left in the pool of
// large blocks.
class Exhaustion {
 public:
  Exhaustion() {
    for (std::size_t size = 1024; size <= 128 * 1024; size *= 2)
      for (int i = 0; i < 4; ++i)
        pooled_.push_back(std::make_unique<keelbase::CAWMessageBlock>(size));
    none_.emplace(1, true);
  }
  Exhaustion(const Exhaustion&) = delete;
  Exhaustion& operator=(const Exhaustion&) = delete;

 private:
  std::vector<std::unique_ptr<keelbase::CAWMessageBlock>> pooled_;
  std::optional<FailingAllocation> none_;
};

}  // namespace zarn::test
