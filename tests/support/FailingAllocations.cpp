// FailingAllocations.cpp - see FailingAllocations.h.
#include "FailingAllocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocations = 0;
thread_local std::size_t failing = 0;  // counted as the others; 0: none
thread_local bool andAllLater = false;

bool Fails() {
  ++allocations;
  return failing != 0 && (allocations == failing || (andAllLater && allocations > failing));
}

void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) {
  if (Fails()) throw std::bad_alloc();
  const std::size_t whole = (size + alignment) / alignment * alignment;  // at least one
  if (void* memory = std::aligned_alloc(alignment, whole)) return memory;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return Allocate(size, static_cast<std::size_t>(alignment));
}
// The address sanitizer has one of its own, which does not go with what is deleted here.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept try {
  return Allocate(size);
} catch (const std::bad_alloc&) {
  return nullptr;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

namespace zarn::test {

std::size_t CountAllocations() { return allocations; }

FailingAllocation::FailingAllocation(std::size_t number, bool all) {
  failing = allocations + number;
  andAllLater = all;
}
FailingAllocation::~FailingAllocation() { failing = 0; }
bool FailingAllocation::HasFailed() const { return allocations >= failing; }

}  // namespace zarn::test
