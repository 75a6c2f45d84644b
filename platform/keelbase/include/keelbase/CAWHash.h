// CAWHash.h - a hash of bytes.
#pragma once

#include <cstdint>

#include "keelbase/CAWDefines.h"

namespace keelbase {

// A well-mixed 32-bit hash, the same on every machine and in every run. Fast, not cryptographic:
// whoever can choose the bytes can make collisions. `data` may be null when `length` is 0.
// Any thread.
KEELBASE_API std::uint32_t hash_bytes(const void* data, unsigned long length, unsigned int seed);

}  // namespace keelbase
