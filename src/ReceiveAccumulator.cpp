// ReceiveAccumulator.cpp - see ReceiveAccumulator.h.
#include "zarn/utils/detail/ReceiveAccumulator.h"

#include <algorithm>
#include <new>
#include <utility>

namespace zarn::utils::detail {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

namespace {

constexpr std::size_t kFirstCapacity = 64 * 1024;
constexpr std::size_t kShortRest = 4096;

}  // namespace

AWResult ReceiveAccumulator::Append(const CAWMessageBlock& data) try {
  const std::size_t length = data.GetChainedLength();
  if (length == 0) return AW_OK;
  const bool worthAdopting = data.GetNext() == nullptr && length >= GetLength();
  if (!worthAdopting || !Adopt(data)) Copy(data, length);
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

// Shares the block's bytes and copies only what is held, in front of them.
bool ReceiveAccumulator::Adopt(const CAWMessageBlock& block) {
  std::unique_ptr<CAWMessageBlock> duplicate(block.DuplicateChained());
  const std::size_t held = GetLength();
  if (held != 0 && duplicate->Prepend(GetData(), held) != AW_OK) return false;
  block_ = std::move(duplicate);
  own_ = false;
  return true;
}

void ReceiveAccumulator::Copy(const CAWMessageBlock& data, std::size_t length) {
  // A handler that is given blocks may have kept a duplicate of this one.
  const bool fits =
      block_ != nullptr && own_ && !block_->IsShared() && block_->GetSpace() >= length;
  // Twice what is needed: moving what is held is then paid for by the bytes that come before the
  // next.
  if (!fits) MoveTo(std::max(kFirstCapacity, 2 * (GetLength() + length)));
  data.CopyChained(block_->GetWritePtr(), length);
  block_->AdvanceWritePtr(length);
}

void ReceiveAccumulator::MoveTo(std::size_t capacity) {
  auto fresh = std::make_unique<CAWMessageBlock>(capacity);
  fresh->Write(GetData(), GetLength());
  block_ = std::move(fresh);
  own_ = true;
}

void ReceiveAccumulator::Consume(std::size_t length) {
  if (block_ == nullptr) return;
  block_->AdvanceReadPtr(length);
  const std::size_t rest = block_->GetLength();
  if (rest == 0) {
    block_.reset();
  } else if (!own_ && rest <= kShortRest) {
    try {
      MoveTo(rest);
    } catch (const std::bad_alloc&) {  // then it stays where it is, which costs only memory
    }
  }
}

}  // namespace zarn::utils::detail
