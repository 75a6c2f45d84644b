// ReceiveAccumulator.h - received bytes in one piece until they are consumed.
#pragma once

#include <cstddef>
#include <memory>

#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils::detail {

// A block that arrives while nothing is held is kept as it is, without a copy. When the start of a
// frame is held, it is put in front of the next block if that is the longer one and has the room;
// else both go to a block of our own that doubles. So every byte is copied a bounded number of
// times, however small the pieces are in which a frame arrives.
class ZARNUTILS_API ReceiveAccumulator {
 public:
  // Adds the chain's unread bytes, which are not advanced. 0; 10001 without memory (nothing added).
  keelbase::AWResult Append(const keelbase::CAWMessageBlock& data);

  const char* GetData() const { return block_ == nullptr ? nullptr : block_->GetReadPtr(); }
  std::size_t GetLength() const { return block_ == nullptr ? 0 : block_->GetLength(); }

  // The bytes as a block, which may be duplicated and advanced; null when nothing is held.
  keelbase::CAWMessageBlock* GetBlock() { return block_.get(); }

  // Drops the first `length` bytes, at most GetLength(). Called after each look at the bytes, also
  // with 0: a short rest is moved out of the received block, so that its buffer is free for the
  // next read.
  void Consume(std::size_t length);

  void Clear() { block_.reset(); }

 private:
  bool Adopt(const keelbase::CAWMessageBlock& block);
  void Copy(const keelbase::CAWMessageBlock& data, std::size_t length);
  void MoveTo(std::size_t capacity);

  std::unique_ptr<keelbase::CAWMessageBlock> block_;  // null when nothing is held; never a chain
  bool own_ = false;                                  // made here, to be added to
};

}  // namespace zarn::utils::detail
