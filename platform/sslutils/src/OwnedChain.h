// OwnedChain.h - a chain of blocks that its holder frees: what a TlsStream keeps for later.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>

#include "keelbase/CAWMessageBlock.h"

namespace sslutils::internal {

// Null when it is empty.
using OwnedChain = std::unique_ptr<keelbase::CAWMessageBlock>;

inline void DropRead(OwnedChain& chain) {
  if (chain != nullptr) chain.reset(chain.release()->ReclaimGarbage());
}

inline void AppendTo(OwnedChain& chain, keelbase::CAWMessageBlock* more) {
  if (chain == nullptr) {
    chain.reset(more);
  } else {
    chain->Append(more);
  }
}

// Small pieces share a block of `blockSize`: there may be many. Throws std::bad_alloc.
inline void AddBytes(OwnedChain& chain, const keelbase::CAWMessageBlock& piece,
                     std::size_t blockSize) {
  keelbase::CAWMessageBlock* last = chain.get();
  while (last != nullptr && last->GetNext() != nullptr) last = last->GetNext();
  if (last == nullptr || last->GetSpace() < piece.GetLength()) {
    auto more = std::make_unique<keelbase::CAWMessageBlock>(std::max(piece.GetLength(), blockSize));
    last = more.get();
    AppendTo(chain, more.release());
  }
  last->Write(piece.GetReadPtr(), piece.GetLength());
}

}  // namespace sslutils::internal
