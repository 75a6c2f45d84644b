// ShmRing.h - a ring of bytes in memory that two processes share: one writes, the other reads.
//
// The other process may put anything anywhere at any time. So each side keeps its own position in
// its own memory, only ever writes it to the shared one, and checks the peer's position before use:
// what lies outside the ring breaks it, for good.
#pragma once

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "keelbase/internal/Processor.h"

namespace fshmipc {

// Positions count bytes since the beginning and never wrap. Each side's words lie on cache lines of
// their own (two: processors fetch lines in pairs), so that neither takes the other's away.
struct RingControl {
  alignas(128) std::atomic<std::uint64_t> head;  // how much was written; the writer's
  std::atomic<std::uint32_t> ended;              // 1: nothing follows; the writer's
  std::atomic<std::uint32_t> writing;            // 1: more is being copied; the writer's
  alignas(128) std::atomic<std::uint64_t> tail;  // how much was read; the reader's
  // Here() of the reader; set by the reader, cleared by the writer.
  alignas(128) std::atomic<std::uint32_t> readerSleeps;
  // 1: for room; set by the writer, cleared by the reader.
  alignas(128) std::atomic<std::uint32_t> writerWaits;
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && sizeof(RingControl) == 512);

// A cache line at a time.
inline void CopyByLines(char* to, const char* from, std::size_t length) {
  constexpr std::size_t kLine = 64;
  for (; length >= kLine; length -= kLine, to += kLine, from += kLine) {
    std::memcpy(to, from, kLine);
  }
  if (length != 0) std::memcpy(to, from, length);
}

// What memcpy takes for long pieces, the processor's string instruction, does not fetch the lines
// that it overwrites from the other core: the fastest way, where it is not slow by itself.
inline void CopyShared(char* to, const char* from, std::size_t length) {
  constexpr std::size_t kLong = 2048;
  if (length >= kLong && keelbase::internal::HasSlowStringCopy()) {
    CopyByLines(to, from, length);
  } else {
    std::memcpy(to, from, length);
  }
}

// What a reader says when it sleeps: on which processor. Never 0.
inline std::uint32_t Here() {
  return static_cast<std::uint32_t>(std::max(::sched_getcpu(), 0)) + 1;
}

// One direction, of `size` bytes (a power of two).
struct Ring {
  RingControl* control = nullptr;
  char* bytes = nullptr;
  std::size_t size = 0;
};

class RingWriter {
 public:
  explicit RingWriter(const Ring& ring) : ring_(ring) {}

  // Copies in as much as there is room for; how much that was. Not to be read before Publish.
  std::size_t Write(const char* data, std::size_t length) {
    if (ring_.size - (head_ - tail_) < length) Refresh();
    const std::size_t taken = std::min(length, ring_.size - (head_ - tail_));
    const std::size_t at = head_ & (ring_.size - 1);
    const std::size_t first = std::min(taken, ring_.size - at);
    if (taken != 0) CopyShared(ring_.bytes + at, data, first);
    if (taken != first) CopyShared(ring_.bytes, data + first, taken - first);
    head_ += taken;
    return taken;
  }

  std::size_t Unpublished() const { return head_ - published_; }

  // Lets the reader see what was written.
  void Show() {
    published_ = head_;
    // Sequentially consistent, as what the reader does before it sleeps: one of us sees the other.
    ring_.control->head.store(head_, std::memory_order_seq_cst);
  }

  // The same. True: it sleeps and is to be woken.
  bool Publish() {
    Show();
    return ShallWakeReader();
  }

  // Before and after much is written: a reader that looks meanwhile waits a moment for the rest.
  void SetWriting(bool writing) {
    ring_.control->writing.store(writing ? 1 : 0, std::memory_order_release);
  }

  // True: the reader sleeps, and is to be woken.
  bool ShallWakeReader() {
    return ring_.control->readerSleeps.load(std::memory_order_seq_cst) != 0 &&
           ring_.control->readerSleeps.exchange(0, std::memory_order_seq_cst) != 0;
  }

  // Woken now, it would take the processor from us.
  bool ReaderSleepsHere() const {
    return ring_.control->readerSleeps.load(std::memory_order_relaxed) == Here();
  }

  // After the last Publish: nothing follows.
  void End() { ring_.control->ended.store(1, std::memory_order_release); }

  // So much that writing is worthwhile.
  bool HasRoom() {
    Refresh();
    return ring_.size - (head_ - tail_) >= ring_.size / 2;
  }

  // Asks to be told when there is room. False: there is some already, and nobody will tell.
  bool WaitForRoom() {
    ring_.control->writerWaits.store(1, std::memory_order_seq_cst);
    if (!HasRoom()) return true;
    ring_.control->writerWaits.store(0, std::memory_order_relaxed);
    return false;
  }

  bool IsBroken() const { return broken_; }

 private:
  void Refresh() {
    const std::uint64_t tail = ring_.control->tail.load(std::memory_order_seq_cst);
    if (head_ - tail > ring_.size) {
      broken_ = true;
    } else {
      tail_ = tail;
    }
  }

  const Ring ring_;
  std::uint64_t head_ = 0;
  std::uint64_t published_ = 0;
  std::uint64_t tail_ = 0;  // the reader's, as last seen
  bool broken_ = false;
};

class RingReader {
 public:
  explicit RingReader(const Ring& ring) : ring_(ring) {}

  // How much can be read; 0 also once it is broken.
  std::size_t Available() {
    if (broken_) return 0;
    const std::uint64_t head = ring_.control->head.load(std::memory_order_seq_cst);
    const std::uint64_t available = head - tail_;
    if (available <= ring_.size) return available;
    broken_ = true;
    return 0;
  }

  // Copies out; `length` is at most what Available() has just answered.
  void Read(char* to, std::size_t length) {
    const std::size_t at = tail_ & (ring_.size - 1);
    const std::size_t first = std::min(length, ring_.size - at);
    CopyShared(to, ring_.bytes + at, first);
    if (length != first) CopyShared(to + first, ring_.bytes, length - first);
    tail_ += length;
    ring_.control->tail.store(tail_, std::memory_order_release);
  }

  // After a Read that has left `unread` bytes. True: the writer waits for room, there is enough
  // now, and it is to be told. One that begins to wait in this very moment may be overlooked: ask
  // ShallTellRoomForSure later.
  bool ShallTellRoom(std::size_t unread) {
    if (unread > ring_.size / 2) return false;
    return ring_.control->writerWaits.load(std::memory_order_seq_cst) != 0 &&
           ring_.control->writerWaits.exchange(0, std::memory_order_seq_cst) != 0;
  }

  // The same by what is unread now, and overlooks nobody. Costs a full barrier, so it is asked once
  // the bytes have been handed on.
  bool ShallTellRoomForSure() {
    // Sequentially consistent, as what the writer does before it waits: one of us sees the other.
    ring_.control->tail.store(tail_, std::memory_order_seq_cst);
    return ring_.control->writerWaits.load(std::memory_order_seq_cst) != 0 &&
           ShallTellRoom(Available());
  }

  // Asks to be woken by the next Publish. False: there is something already.
  bool Sleep() {
    ring_.control->readerSleeps.store(Here(), std::memory_order_seq_cst);
    if (Available() == 0 && !broken_) return true;
    Awake();
    return false;
  }
  void Awake() { ring_.control->readerSleeps.store(0, std::memory_order_relaxed); }

  // To be asked before Available(): then what was written before the end of it is seen.
  bool IsWriting() const { return ring_.control->writing.load(std::memory_order_acquire) != 0; }

  std::size_t Size() const { return ring_.size; }
  bool HasEnded() const { return ring_.control->ended.load(std::memory_order_acquire) != 0; }
  bool IsBroken() const { return broken_; }

 private:
  const Ring ring_;
  std::uint64_t tail_ = 0;
  bool broken_ = false;
};

}  // namespace fshmipc
