// LoopCounted.h - base of counted objects that one loop's thread has to itself.
#pragma once

#include <cstdint>

namespace keelbase::internal {

// For CAWAutoPtr, with a plain count: a connection takes and drops a reference for each block that
// it reads, and atomic counts are a good part of what a short one costs. Loop thread only, or any
// one thread once the loop has stopped.
class LoopCounted {
 public:
  LoopCounted(const LoopCounted&) = delete;
  LoopCounted& operator=(const LoopCounted&) = delete;

  void AddReference() { ++count_; }
  void ReleaseReference() {
    if (--count_ == 0) OnLastReference();
  }

 protected:
  LoopCounted() = default;
  virtual ~LoopCounted() = default;

  // Deletes the object, or sees to it that this is called again later.
  virtual void OnLastReference() = 0;

 private:
  std::uint32_t count_ = 0;
};

}  // namespace keelbase::internal
