// Pool.cpp - see Pool.h. Free memory stays on the thread that freed it, up to a bound.
#include "keelbase/internal/Pool.h"

#include <array>
#include <bit>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "keelbase/internal/Mutex.h"
#include "keelbase/internal/Processor.h"

namespace keelbase::internal {

namespace {

// Sanitizers must see every object's own end of life.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kPooled = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif
#else
constexpr bool kPooled = true;
#endif

// Small classes are 64 bytes apart; large ones are powers of two from 1 KiB on, with room for a
// header.
constexpr std::size_t kStep = 64;
constexpr std::size_t kMaxSmall = 512;  // bytes
constexpr std::size_t kSmallClasses = kMaxSmall / kStep;
constexpr std::size_t kLargeClasses = 8;
constexpr std::size_t kClasses = kSmallClasses + kLargeClasses;

constexpr std::size_t SizeOf(std::size_t index) {
  if (index < kSmallClasses) return (index + 1) * kStep;
  return (std::size_t{1024} << (index - kSmallClasses)) + kStep;
}
static_assert(SizeOf(kClasses - 1) == kMaxPooled);

constexpr std::size_t ClassOf(std::size_t size) {
  if (size <= kMaxSmall) return size == 0 ? 0 : (size - 1) / kStep;
  const std::size_t body = size <= kStep + 1024 ? 1024 : size - kStep;
  return kSmallClasses + static_cast<std::size_t>(std::bit_width((body - 1) / 1024));
}
static_assert(ClassOf(kMaxSmall + 1) == kSmallClasses && ClassOf(SizeOf(9)) == 9 &&
              ClassOf(SizeOf(9) + 1) == 10 && ClassOf(kMaxPooled) == kClasses - 1);

// So much free memory of a class moves from thread to thread at once.
constexpr std::size_t BatchOf(std::size_t index) { return index < kSmallClasses ? 128 : 2; }
constexpr std::size_t kMaxBatch = BatchOf(0);

// What waits to be taken over by another thread, in bytes of each small class. Large memory stays
// with its thread.
constexpr std::size_t kMaxExchanged = 2 * 1024 * 1024;
constexpr bool IsExchanged(std::size_t index) { return index < kSmallClasses; }

// Another thread may have written what is handed out: it is fetched so many pieces ahead.
constexpr std::size_t kPiecesFetchedAhead = 8;

void FetchToWrite(const void* memory, std::size_t size) {
  const auto* bytes = static_cast<const char*>(memory);
  FetchLineToWrite(bytes);
  if (size > kStep) FetchLineToWrite(bytes + kStep);
}

// On cache lines of its own: what one processor writes does not slow down another one's neighbour.
void* AllocatePiece(std::size_t index) {
  return ::operator new (SizeOf(index), std::align_val_t{kStep});
}
void DeletePiece(void* piece) noexcept { ::operator delete (piece, std::align_val_t{kStep}); }

// Pieces of free memory. They stand here and are not linked through themselves, so that taking one
// does not wait for its bytes.
struct Batch {
  Batch* next = nullptr;
  std::size_t count = 0;
  std::array<void*, kMaxBatch> pieces;

  void DeletePieces() {
    while (count != 0) DeletePiece(pieces[--count]);
  }
};

// Where threads that mostly free pass whole batches to those that mostly allocate, for empty ones.
class Exchange {
 public:
  // Takes the batch over; null, and nothing is taken, when there is none to be had.
  Batch* EmptyForFull(std::size_t index, Batch* full) {
    Shelf& shelf = shelves_[index];
    const MutexLock lock(shelf.mutex);
    if ((shelf.fullCount + 1) * BatchOf(index) * SizeOf(index) > kMaxExchanged) return nullptr;
    Batch* empty = Pop(shelf.empty);
    if (empty == nullptr) empty = new (std::nothrow) Batch;
    if (empty == nullptr) return nullptr;
    Push(shelf.full, full);
    ++shelf.fullCount;
    return empty;
  }

  Batch* FullForEmpty(std::size_t index, Batch* empty) {
    Shelf& shelf = shelves_[index];
    const MutexLock lock(shelf.mutex);
    Batch* full = Pop(shelf.full);
    if (full == nullptr) return nullptr;
    --shelf.fullCount;
    Push(shelf.empty, empty);
    return full;
  }

 private:
  struct Shelf {
    Mutex mutex;
    Batch* full AW_GUARDED_BY(mutex) = nullptr;
    Batch* empty AW_GUARDED_BY(mutex) = nullptr;
    std::size_t fullCount AW_GUARDED_BY(mutex) = 0;
  };

  static void Push(Batch*& stack, Batch* batch) {
    batch->next = stack;
    stack = batch;
  }
  static Batch* Pop(Batch*& stack) {
    Batch* batch = stack;
    if (batch != nullptr) stack = batch->next;
    return batch;
  }

  std::array<Shelf, kSmallClasses> shelves_;
};
constinit Exchange exchange;
static_assert(std::is_trivially_destructible_v<Exchange>);  // the last destructors use it

// Trivial, so that it can be used before and after the thread's constructors and destructors.
struct FreeLists {
  struct Pair {
    Batch* active;  // null until the thread has freed memory of this class
    Batch* spare;   // full or empty
  };
  std::array<Pair, kClasses> pairs;
  bool watched;  // the destructor below is armed
  bool closed;   // it has run
};
thread_local constinit FreeLists freeLists __attribute__((tls_model("initial-exec"))){};

struct ReturnAtThreadEnd {
  ~ReturnAtThreadEnd() {
    freeLists.closed = true;
    for (FreeLists::Pair& pair : freeLists.pairs) {
      for (Batch* batch :
           {std::exchange(pair.active, nullptr), std::exchange(pair.spare, nullptr)}) {
        if (batch == nullptr) continue;
        batch->DeletePieces();
        delete batch;
      }
    }
  }
};

void WatchThreadEnd() {
  thread_local ReturnAtThreadEnd returner;
  (void)&returner;
  freeLists.watched = true;
}

constexpr bool IsPooled(std::size_t size) { return kPooled && size <= kMaxPooled; }

bool Prepare(FreeLists::Pair& pair) {
  if (pair.active != nullptr) return true;
  if (freeLists.closed) return false;
  if (!freeLists.watched) WatchThreadEnd();
  std::unique_ptr<Batch> active(new (std::nothrow) Batch);
  std::unique_ptr<Batch> spare(new (std::nothrow) Batch);
  if (active == nullptr || spare == nullptr) return false;
  pair = {active.release(), spare.release()};
  return true;
}

// The active batch is empty: sees to it that it is not. False when there is nothing to be had.
bool Refill(FreeLists::Pair& pair, std::size_t index) {
  if (!Prepare(pair)) return false;
  if (pair.spare->count != 0) {
    std::swap(pair.active, pair.spare);
    return true;
  }
  if (!IsExchanged(index)) return false;
  Batch* full = exchange.FullForEmpty(index, pair.active);
  if (full != nullptr) pair.active = full;
  return full != nullptr;
}

// The active batch is full: makes it one with room.
void MakeRoom(FreeLists::Pair& pair, std::size_t index) {
  std::swap(pair.active, pair.spare);
  if (pair.active->count == 0) return;
  Batch* empty = IsExchanged(index) ? exchange.EmptyForFull(index, pair.active) : nullptr;
  if (empty != nullptr) {
    pair.active = empty;
  } else {
    pair.active->DeletePieces();
  }
}

}  // namespace

void* PoolAllocate(std::size_t size) {
  if (!IsPooled(size)) return ::operator new(size);
  const std::size_t index = ClassOf(size);
  FreeLists::Pair& pair = freeLists.pairs[index];
  if ((pair.active == nullptr || pair.active->count == 0) && !Refill(pair, index))
    return AllocatePiece(index);
  Batch& batch = *pair.active;
  if (batch.count > kPiecesFetchedAhead)
    FetchToWrite(batch.pieces[batch.count - 1 - kPiecesFetchedAhead], size);
  return batch.pieces[--batch.count];
}

void PoolFree(void* memory, std::size_t size) noexcept {
  if (memory == nullptr) return;
  if (!IsPooled(size)) return ::operator delete(memory);
  const std::size_t index = ClassOf(size);
  FreeLists::Pair& pair = freeLists.pairs[index];
  if (!Prepare(pair)) return DeletePiece(memory);
  if (pair.active->count == BatchOf(index)) MakeRoom(pair, index);
  pair.active->pieces[pair.active->count++] = memory;
}

}  // namespace keelbase::internal
