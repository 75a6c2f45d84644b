// CAWMessageBlock.cpp - see CAWMessageBlock.h.
#include "keelbase/CAWMessageBlock.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>

#include "keelbase/internal/Chains.h"
#include "keelbase/internal/Pool.h"

namespace keelbase {

namespace internal {

// Owned bytes, laid out behind this header. `lowest` is the lowest address that any window has
// covered: a block whose window starts there may claim headroom below it, whoever else shares the
// bytes.
struct BlockBytes {
  std::atomic<std::uint32_t> owners{1};
  std::size_t size;
  std::size_t headroom;
  std::atomic<char*> lowest;

  char* Begin() { return reinterpret_cast<char*>(this + 1); }
  char* End() { return Begin() + size; }

  static BlockBytes* Make(std::size_t size, std::size_t headroom) {
    constexpr std::size_t kMaxSize = std::numeric_limits<std::size_t>::max() - sizeof(BlockBytes);
    if (headroom > kMaxSize || size > kMaxSize - headroom) throw std::bad_alloc();
    return new (PoolAllocate(sizeof(BlockBytes) + headroom + size)) BlockBytes(size, headroom);
  }

  void AddOwner() { owners.fetch_add(1, std::memory_order_relaxed); }
  void DropOwner() {
    // Nobody can join the last owner, so it need not be counted off.
    if (owners.load(std::memory_order_acquire) != 1 &&
        owners.fetch_sub(1, std::memory_order_acq_rel) != 1)
      return;
    const std::size_t allocated = sizeof(BlockBytes) + size;
    this->~BlockBytes();
    PoolFree(this, allocated);
  }

 private:
  BlockBytes(std::size_t capacity, std::size_t room)
      : size(capacity + room), headroom(room), lowest(Begin() + room) {}
};

}  // namespace internal

using internal::BlockBytes;

CAWMessageBlock::CAWMessageBlock(std::size_t capacity, std::size_t headroom)
    : bytes_(BlockBytes::Make(capacity, headroom)) {
  read_ = write_ = bytes_->Begin() + headroom;
}

CAWMessageBlock::CAWMessageBlock(BlockBytes* shared, char* read, char* write) noexcept
    : read_(read), write_(write), bytes_(shared) {
  bytes_->AddOwner();
}

void CAWMessageBlock::Release() noexcept {
  if (bytes_ != nullptr) bytes_->DropOwner();
  // One after the other: a chain may be longer than the stack is deep.
  CAWMessageBlock* block = next_;
  while (block != nullptr) {
    CAWMessageBlock* next = block->next_;
    block->next_ = nullptr;
    delete block;
    block = next;
  }
}

void* CAWMessageBlock::operator new(std::size_t size) { return internal::PoolAllocate(size); }

void CAWMessageBlock::operator delete(void* memory) noexcept {
  internal::PoolFree(memory, sizeof(CAWMessageBlock));
}

std::size_t CAWMessageBlock::GetSpace() const {
  return bytes_ == nullptr ? 0 : static_cast<std::size_t>(bytes_->End() - write_);
}

bool CAWMessageBlock::IsShared() const {
  return bytes_ != nullptr && bytes_->owners.load(std::memory_order_acquire) > 1;
}

// Moves the window to a copy of the bytes, to the same place in as much room.
bool CAWMessageBlock::MakeOwn() noexcept {
  BlockBytes* own = nullptr;
  try {
    own = BlockBytes::Make(bytes_->size - bytes_->headroom, bytes_->headroom);
  } catch (const std::bad_alloc&) {
    return false;
  }
  const std::size_t length = GetLength();
  char* const read = own->Begin() + (read_ - bytes_->Begin());
  std::memcpy(read, read_, length);
  if (read < own->lowest) own->lowest = read;
  bytes_->DropOwner();
  bytes_ = own;
  read_ = read;
  write_ = read + length;
  return true;
}

char* CAWMessageBlock::GetWritePtr() {
  if (bytes_ == nullptr) return nullptr;
  if (IsShared() && !MakeOwn()) return nullptr;
  return write_;
}

AWResult CAWMessageBlock::Write(const char* data, std::size_t length) {
  if (length == 0) return AW_OK;
  if (length > GetSpace()) return AW_ERROR_FAILURE;
  char* to = GetWritePtr();
  if (to == nullptr) return AW_ERROR_FAILURE;
  std::memcpy(to, data, length);
  write_ += length;
  return AW_OK;
}

AWResult CAWMessageBlock::AdvanceReadPtr(std::size_t length) {
  if (length > GetLength()) return AW_ERROR_FAILURE;
  read_ += length;
  return AW_OK;
}

AWResult CAWMessageBlock::AdvanceWritePtr(std::size_t length) {
  if (length > GetSpace()) return AW_ERROR_FAILURE;
  write_ += length;
  return AW_OK;
}

AWResult CAWMessageBlock::Prepend(const char* data, std::size_t length) {
  if (bytes_ == nullptr) return AW_ERROR_FAILURE;
  if (length == 0) return AW_OK;
  if (length > static_cast<std::size_t>(read_ - bytes_->Begin())) return AW_ERROR_FAILURE;
  char* expected = read_;
  if (!bytes_->lowest.compare_exchange_strong(expected, read_ - length, std::memory_order_acq_rel))
    return AW_ERROR_FAILURE;
  read_ -= length;
  std::memcpy(read_, data, length);
  return AW_OK;
}

AWResult CAWMessageBlock::Reset() {
  if (bytes_ == nullptr || IsShared()) return AW_ERROR_FAILURE;
  read_ = write_ = bytes_->Begin() + bytes_->headroom;
  bytes_->lowest.store(read_, std::memory_order_relaxed);
  return AW_OK;
}

void CAWMessageBlock::Append(CAWMessageBlock* chain) {
  CAWMessageBlock* last = this;
  while (last->next_ != nullptr) last = last->next_;
  last->next_ = chain;
}

AWResult CAWMessageBlock::AdvanceChainedReadPtr(std::size_t length) {
  if (length <= GetLength()) {
    read_ += length;
    return AW_OK;
  }
  if (length > internal::LengthUpTo(*this, length)) return AW_ERROR_FAILURE;
  for (CAWMessageBlock* block = this; length > 0; block = block->next_) {
    const std::size_t step = std::min(length, block->GetLength());
    block->read_ += step;
    length -= step;
  }
  return AW_OK;
}

std::size_t CAWMessageBlock::CopyChained(char* out, std::size_t length) const {
  std::size_t copied = 0;
  for (const CAWMessageBlock* block = this; block != nullptr && copied < length;
       block = block->next_) {
    const std::size_t step = std::min(length - copied, block->GetLength());
    if (step != 0) std::memcpy(out + copied, block->read_, step);
    copied += step;
  }
  return copied;
}

CAWMessageBlock* CAWMessageBlock::DuplicateOne() const {
  if (bytes_ != nullptr) return new CAWMessageBlock(bytes_, read_, write_);
  const std::size_t length = GetLength();
  auto* copy = new CAWMessageBlock(length);
  if (length != 0) std::memcpy(copy->write_, read_, length);
  copy->write_ += length;
  return copy;
}

CAWMessageBlock* CAWMessageBlock::DuplicateChained() const {
  CAWMessageBlock* first = nullptr;
  CAWMessageBlock* last = nullptr;
  try {
    for (const CAWMessageBlock* block = this; block != nullptr; block = block->next_) {
      if (block->GetLength() == 0) continue;
      CAWMessageBlock* copy = block->DuplicateOne();
      if (last == nullptr)
        first = copy;
      else
        last->next_ = copy;
      last = copy;
    }
    return first != nullptr ? first : DuplicateOne();
  } catch (const std::bad_alloc&) {
    delete first;
    throw;
  }
}

CAWMessageBlock* CAWMessageBlock::Disjoint(std::size_t length) {
  CAWMessageBlock* block = this;
  while (length > block->GetLength()) {
    length -= block->GetLength();
    block = block->next_;
    if (block == nullptr) return nullptr;
  }
  CAWMessageBlock* rest = block->next_;
  if (length < block->GetLength()) {
    auto* cut =
        block->bytes_ == nullptr
            ? new CAWMessageBlock(block->read_ + length, block->GetLength() - length, borrow)
            : new CAWMessageBlock(block->bytes_, block->read_ + length, block->write_);
    cut->next_ = rest;
    rest = cut;
    block->write_ = block->read_ + length;
  }
  block->next_ = nullptr;
  while (rest != nullptr && rest->GetLength() == 0) {
    CAWMessageBlock* empty = rest;
    rest = rest->next_;
    empty->next_ = nullptr;
    delete empty;
  }
  return rest;
}

CAWString CAWMessageBlock::FlattenChained() const {
  CAWString all;
  all.reserve(GetChainedLength());
  for (const CAWMessageBlock* block = this; block != nullptr; block = block->next_)
    all.append(block->read_, block->GetLength());
  return all;
}

CAWMessageBlock* CAWMessageBlock::ReclaimGarbage() {
  CAWMessageBlock* block = this;
  while (block != nullptr && block->GetLength() == 0) {
    CAWMessageBlock* empty = block;
    block = block->next_;
    empty->next_ = nullptr;
    delete empty;
  }
  return block;
}

void CAWMessageBlock::DestroyChained() { delete this; }

}  // namespace keelbase
