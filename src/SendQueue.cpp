// SendQueue.cpp - see SendQueue.h.
#include "zarn/utils/detail/SendQueue.h"

#include <new>
#include <utility>

namespace zarn::utils::detail {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

namespace {

constexpr std::size_t kBlockSize = 64 * 1024;

// Up to here a copy costs less than a block of its own does.
constexpr std::size_t kSmall = 4096;

// More than most transports take at once.
constexpr std::size_t kPiece = 1024 * 1024;

}  // namespace

AWResult SendQueue::Append(const CAWMessageBlock& data) try {
  const std::size_t length = data.GetChainedLength();
  if (length == 0) return AW_OK;
  if (length <= kSmall) {
    Copy(data, length);
  } else {
    Link(std::unique_ptr<CAWMessageBlock>(data.DuplicateChained()));
  }
  length_ += length;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

void SendQueue::Copy(const CAWMessageBlock& data, std::size_t length) {
  // Bytes that a transport or a sender shares are left alone: writing behind them would copy them
  // all.
  const bool fits = tail_ != nullptr && !tail_->IsShared() && tail_->GetSpace() >= length;
  if (!fits) Link(std::make_unique<CAWMessageBlock>(kBlockSize));
  data.CopyChained(tail_->GetWritePtr(), length);
  tail_->AdvanceWritePtr(length);
  if (tail_ == pieceEnd_) pieceLength_ += length;
}

void SendQueue::Link(std::unique_ptr<CAWMessageBlock> chain) {
  CAWMessageBlock* first = chain.get();
  if (head_ == nullptr) {
    head_ = std::move(chain);
  } else {
    tail_->Append(chain.release());
  }
  tail_ = first;
  while (tail_->GetNext() != nullptr) tail_ = tail_->GetNext();
}

// Cuts the chain behind the piece and returns the rest, which may be null.
CAWMessageBlock* SendQueue::CutPiece() {
  if (pieceEnd_ == nullptr) {
    pieceEnd_ = head_.get();
    pieceLength_ = pieceEnd_->GetLength();
    while (pieceLength_ < kPiece && pieceEnd_->GetNext() != nullptr) {
      pieceEnd_ = pieceEnd_->GetNext();
      pieceLength_ += pieceEnd_->GetLength();
    }
  }
  return pieceEnd_->Disjoint(pieceEnd_->GetLength());
}

// After a piece of which something was taken.
void SendQueue::DropSent() {
  std::size_t left = pieceEnd_->GetLength();
  for (const CAWMessageBlock* block = head_.get(); block != pieceEnd_; block = block->GetNext())
    left += block->GetLength();
  length_ -= pieceLength_ - left;
  pieceLength_ = left;
  if (left == 0) pieceEnd_ = nullptr;
  head_.reset(head_.release()->ReclaimGarbage());
  if (head_ == nullptr) Clear();
}

void SendQueue::Clear() {
  head_.reset();
  tail_ = pieceEnd_ = nullptr;
  length_ = pieceLength_ = 0;
}

}  // namespace zarn::utils::detail
