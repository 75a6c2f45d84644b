// ChainLength.h - questions about a chain that do not walk all of it.
#pragma once

#include <cstddef>

#include "keelbase/CAWMessageBlock.h"

namespace keelbase::internal {

// The length of a chain, or something from `enough` on: a chain may be long.
inline std::size_t LengthUpTo(const CAWMessageBlock& chain, std::size_t enough) {
  std::size_t length = 0;
  for (const CAWMessageBlock* block = &chain; block != nullptr && length < enough;
       block = block->GetNext())
    length += block->GetLength();
  return length;
}

}  // namespace keelbase::internal
