// Pool.cpp - see Pool.h. Free memory stays on the thread that freed it, up to a bound.
#include "keelbase/internal/Pool.h"

#include <array>
#include <bit>
#include <new>

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
constexpr std::size_t kLargestSmall = 512;  // bytes
constexpr std::size_t kSmallClasses = kLargestSmall / kStep;
constexpr std::size_t kLargeClasses = 8;
constexpr std::size_t kClasses = kSmallClasses + kLargeClasses;
constexpr std::size_t kKeptSmall = 256;
constexpr std::size_t kKeptLarge = 4;

constexpr std::size_t SizeOf(std::size_t index) {
  if (index < kSmallClasses) return (index + 1) * kStep;
  return (std::size_t{1024} << (index - kSmallClasses)) + kStep;
}
static_assert(SizeOf(kClasses - 1) == kLargestPooled);

constexpr std::size_t ClassOf(std::size_t size) {
  if (size <= kLargestSmall) return size == 0 ? 0 : (size - 1) / kStep;
  const std::size_t body = size <= kStep + 1024 ? 1024 : size - kStep;
  return kSmallClasses + static_cast<std::size_t>(std::bit_width((body - 1) / 1024));
}
static_assert(ClassOf(kLargestSmall + 1) == kSmallClasses && ClassOf(SizeOf(9)) == 9 &&
              ClassOf(SizeOf(9) + 1) == 10 && ClassOf(kLargestPooled) == kClasses - 1);

struct FreeNode {
  FreeNode* next;
};

struct FreeList {
  FreeNode* first;
  std::size_t count;
};

// Trivial, so that it can be used before and after the thread's constructors and destructors.
struct FreeLists {
  std::array<FreeList, kClasses> lists;
  bool watched;  // the destructor below is armed
  bool closed;   // it has run
};
thread_local constinit FreeLists freeLists{};

struct ReturnAtThreadEnd {
  ~ReturnAtThreadEnd() {
    freeLists.closed = true;
    for (FreeList& list : freeLists.lists) {
      while (list.first != nullptr) {
        FreeNode* node = list.first;
        list.first = node->next;
        ::operator delete(node);
      }
    }
  }
};

void WatchThreadEnd() {
  thread_local ReturnAtThreadEnd returner;
  (void)&returner;
  freeLists.watched = true;
}

constexpr bool IsPooled(std::size_t size) { return kPooled && size <= kLargestPooled; }

}  // namespace

void* PoolAllocate(std::size_t size) {
  if (!IsPooled(size)) return ::operator new(size);
  const std::size_t index = ClassOf(size);
  FreeList& list = freeLists.lists[index];
  FreeNode* node = list.first;
  if (node == nullptr) return ::operator new(SizeOf(index));
  list.first = node->next;
  --list.count;
  return node;
}

void PoolFree(void* memory, std::size_t size) noexcept {
  if (memory == nullptr) return;
  if (!IsPooled(size) || freeLists.closed) return ::operator delete(memory);
  const std::size_t index = ClassOf(size);
  FreeList& list = freeLists.lists[index];
  if (list.count >= (index < kSmallClasses ? kKeptSmall : kKeptLarge))
    return ::operator delete(memory);
  if (!freeLists.watched) WatchThreadEnd();
  list.first = new (memory) FreeNode{list.first};
  ++list.count;
}

}  // namespace keelbase::internal
