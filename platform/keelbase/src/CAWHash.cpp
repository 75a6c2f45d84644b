// CAWHash.cpp - a hash of bytes, by xxHash.
#include "keelbase/CAWHash.h"

#include <xxhash.h>

namespace keelbase {

std::uint32_t hash_bytes(const void* data, unsigned long length, unsigned int seed) {
  return XXH32(length == 0 ? "" : data, length, seed);
}

}  // namespace keelbase
