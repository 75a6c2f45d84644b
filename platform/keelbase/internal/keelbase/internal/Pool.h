// Pool.h - per-thread free lists for what is made and freed all the time: objects and buffers.
#pragma once

#include <cstddef>

#include "keelbase/CAWDefines.h"

namespace keelbase::internal {

// Memory of at least `size` bytes. Up to kMaxPooled bytes it comes from a free list of the
// calling thread, beyond that from the heap. May be freed on any thread. Throws std::bad_alloc.
KEELBASE_API void* PoolAllocate(std::size_t size);
KEELBASE_API void PoolFree(void* memory, std::size_t size) noexcept;

inline constexpr std::size_t kMaxPooled = 128 * 1024 + 64;

}  // namespace keelbase::internal
