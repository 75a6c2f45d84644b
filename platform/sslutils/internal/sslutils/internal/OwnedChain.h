// OwnedChain.h - a chain of blocks that its holder frees: what a TlsStream keeps for later.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>

#include "keelbase/CAWMessageBlock.h"
#include "keelbase/internal/Chains.h"

namespace sslutils::internal {

// There may be many blocks: adding, and reading from the front, walk over none that stay.
class OwnedChain {
 public:
  bool IsEmpty() const { return first_ == nullptr; }
  std::size_t GetLength() const { return length_; }
  // Null when it is empty. Whoever reads from it calls DropRead.
  keelbase::CAWMessageBlock* GetFirst() const { return first_.get(); }

  // Takes it over.
  void Append(keelbase::CAWMessageBlock* more) {
    if (IsEmpty()) {
      first_.reset(more);
    } else {
      last_->Append(more);
    }
    for (; more != nullptr; more = more->GetNext()) {
      last_ = more;
      length_ += more->GetLength();
    }
    DropRead(0);
  }

  // Small pieces share a block of `blockSize`. Throws std::bad_alloc.
  void AddBytes(const keelbase::CAWMessageBlock& piece, std::size_t blockSize) {
    const std::size_t size = piece.GetLength();
    if (!IsEmpty() && last_->Write(piece.GetReadPtr(), size) == keelbase::AW_OK) {
      length_ += size;
      return;
    }
    auto block = std::make_unique<keelbase::CAWMessageBlock>(std::max(size, blockSize));
    block->Write(piece.GetReadPtr(), size);
    Append(block.release());
  }

  // Takes up to `length` bytes from the front; how many it were.
  std::size_t Read(char* data, std::size_t length) {
    if (IsEmpty()) return 0;
    const std::size_t count = first_->CopyChained(data, length);
    first_->AdvanceChainedReadPtr(count);
    DropRead(count);
    return count;
  }

  // After `count` bytes were read from the front.
  void DropRead(std::size_t count) {
    length_ -= count;
    keelbase::internal::DropRead(first_);
  }

  void Clear() {
    first_.reset();
    length_ = 0;
  }

 private:
  std::unique_ptr<keelbase::CAWMessageBlock> first_;
  keelbase::CAWMessageBlock* last_ = nullptr;  // while there is a first
  std::size_t length_ = 0;
};

}  // namespace sslutils::internal
