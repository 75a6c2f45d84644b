// CAWMessageBlock.h - chained byte buffers: what every send and every received event is made of.
#pragma once

#include <array>
#include <cstddef>
#include <new>
#include <vector>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"

namespace keelbase {

namespace internal {
struct BlockBytes;
}

// A window (read pointer, write pointer) on bytes, with a next block.
//
//   |  headroom  |  read ........ written  |  space  |
//                ^ GetReadPtr()            ^ GetWritePtr()
//
// The bytes are either owned (shared with duplicates by an atomic count) or borrowed from the
// caller. Duplicates see what had been written when they were made: whoever writes to shared bytes
// first gets a copy of its own.
//
// Threads: distinct blocks may be used from distinct threads, also when they share bytes; one block
// (and the chain behind it) belongs to one thread at a time.
// Ownership: a block owns the blocks chained behind it and destroys them with itself. A head may
// live on the stack; everything behind a head, and every block that DestroyChained() or
// ReclaimGarbage() is called on, was made by `new` or by an operation below. Limits: every
// operation is bounded; asking for more than there is returns an error and changes nothing.
// Operations that make blocks let std::bad_alloc pass unless they return a result code.
class KEELBASE_API CAWMessageBlock {
 public:
  struct borrow_t {};
  static constexpr borrow_t borrow{};

  // Owns `capacity` fresh bytes, none written. `headroom` bytes more are kept in front for Prepend.
  explicit CAWMessageBlock(std::size_t capacity, std::size_t headroom = 0);

  // Refers to the caller's bytes, all written; they must outlive the block. Null with length 0 is
  // fine.
  CAWMessageBlock(const char* data, std::size_t length, borrow_t) noexcept
      : read_(const_cast<char*>(data)), write_(read_ + length) {}

  ~CAWMessageBlock() {
    if (bytes_ != nullptr || next_ != nullptr) Release();
  }
  CAWMessageBlock(const CAWMessageBlock&) = delete;
  CAWMessageBlock& operator=(const CAWMessageBlock&) = delete;

  // --- this block alone ---

  const char* GetReadPtr() const { return read_; }
  std::size_t GetLength() const { return static_cast<std::size_t>(write_ - read_); }

  // Bytes that can still be written; 0 for borrowed bytes.
  std::size_t GetSpace() const;

  // Where the next byte goes: fill up to GetSpace() bytes, then AdvanceWritePtr. Shared bytes are
  // copied first. Null for borrowed bytes and when that copy finds no memory.
  char* GetWritePtr();

  // 0; 10001 when it does not fit or no memory.
  AWResult Write(const char* data, std::size_t length);
  AWResult AdvanceReadPtr(std::size_t length);   // 0; 10001 beyond what is written
  AWResult AdvanceWritePtr(std::size_t length);  // 0; 10001 beyond the space

  // Puts bytes in front of the read pointer, into headroom that no other block has ever covered:
  // also while the bytes are shared. 0; 10001 (nothing changed) when there is no such room.
  AWResult Prepend(const char* data, std::size_t length);

  // Empties the window and gives it all its space and headroom back. 10001 for borrowed or shared
  // bytes.
  AWResult Reset();

  bool IsBorrowed() const { return bytes_ == nullptr; }
  bool IsShared() const;  // a duplicate of the same bytes is alive somewhere

  CAWMessageBlock* GetNext() const { return next_; }

  // --- the chain that starts here ---

  std::size_t GetChainedLength() const {
    std::size_t total = GetLength();
    for (const CAWMessageBlock* block = next_; block != nullptr; block = block->next_)
      total += block->GetLength();
    return total;
  }

  void Append(CAWMessageBlock* chain);  // takes it over, behind the last block; null does nothing

  // 0; 10001 beyond the chain, and nothing is advanced.
  AWResult AdvanceChainedReadPtr(std::size_t length);

  // Copies up to `length` unread bytes to `out` without advancing; returns how many.
  std::size_t CopyChained(char* out, std::size_t length) const;

  // A new chain over the same unread bytes: owned bytes are shared, borrowed ones copied. Blocks
  // without unread bytes are left out, but for one when there is nothing at all. Never null.
  CAWMessageBlock* DuplicateChained() const;

  // Cuts the chain after `length` unread bytes and returns the rest, which the caller then owns.
  // Null when nothing is left, and when the chain is shorter than `length` (nothing is cut then).
  CAWMessageBlock* Disjoint(std::size_t length);

  CAWString FlattenChained() const;  // all unread bytes

  // Frees the fully read blocks at the front, this one included, and returns what is left: null
  // when everything was read.
  CAWMessageBlock* ReclaimGarbage();

  void DestroyChained();  // deletes this block and all behind it

  // Chains `tail` (with what is behind it) behind `head`, which must be the end of its chain, for
  // as long as this object lives: the blocks stay the caller's.
  class LinkForCall {
   public:
    LinkForCall(CAWMessageBlock& head, CAWMessageBlock& tail) : head_(head) { head_.next_ = &tail; }
    ~LinkForCall() { head_.next_ = nullptr; }
    LinkForCall(const LinkForCall&) = delete;
    LinkForCall& operator=(const LinkForCall&) = delete;

   private:
    CAWMessageBlock& head_;
  };

  // Remembers the read pointers of a chain and puts them back at its own end: for a sender that
  // must leave its caller's blocks as they were. The chain must have the same blocks by then. For a
  // chain of more than eight blocks it allocates, and so may throw std::bad_alloc.
  class KeepUnread {
   public:
    explicit KeepUnread(CAWMessageBlock& chain) : chain_(chain) {
      std::size_t count = 0;
      for (const CAWMessageBlock* block = &chain; block != nullptr; block = block->next_, ++count) {
        if (count < first_.size()) {
          first_[count] = block->read_;
        } else {
          more_.push_back(block->read_);
        }
      }
    }
    ~KeepUnread() {
      std::size_t count = 0;
      for (CAWMessageBlock* block = &chain_; block != nullptr; block = block->next_, ++count)
        block->read_ = count < first_.size() ? first_[count] : more_[count - first_.size()];
    }
    KeepUnread(const KeepUnread&) = delete;
    KeepUnread& operator=(const KeepUnread&) = delete;

   private:
    CAWMessageBlock& chain_;
    std::array<char*, 8> first_;
    std::vector<char*> more_;
  };

  // Blocks come from a per-thread pool.
  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;

 private:
  CAWMessageBlock(internal::BlockBytes* shared, char* read, char* write) noexcept;
  CAWMessageBlock* DuplicateOne() const;
  bool MakeOwn() noexcept;
  void Release() noexcept;

  char* read_;
  char* write_;
  internal::BlockBytes* bytes_ = nullptr;  // null: borrowed
  CAWMessageBlock* next_ = nullptr;
};

}  // namespace keelbase
