// Chains.h - what transports ask of chains of blocks and do with them.
#pragma once

#include <cstddef>
#include <memory>
#include <new>

#include "keelbase/CAWError.h"
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

inline bool HasBytes(const CAWMessageBlock& chain) { return LengthUpTo(chain, 1) != 0; }

// Appends a copy of `more` to `chain`, which may be null. AW_OK; AW_ERROR_FAILURE without memory.
inline AWResult AppendCopy(std::unique_ptr<CAWMessageBlock>& chain,
                           const CAWMessageBlock& more) try {
  CAWMessageBlock* copy = more.DuplicateChained();
  if (chain == nullptr) {
    chain.reset(copy);
  } else {
    chain->Append(copy);
  }
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

// Frees the blocks at the front that are fully read.
inline void DropRead(std::unique_ptr<CAWMessageBlock>& chain) {
  if (chain != nullptr) chain.reset(chain.release()->ReclaimGarbage());
}

}  // namespace keelbase::internal
