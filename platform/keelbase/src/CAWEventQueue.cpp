// CAWEventQueue.cpp - see CAWEventQueue.h.
#include "keelbase/CAWEventQueue.h"

#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/Pool.h"

namespace keelbase {

IAWEvent::~IAWEvent() = default;

void IAWEvent::OnDestorySelf() { delete this; }

void* IAWEvent::operator new(std::size_t size) { return internal::PoolAllocate(size); }

void IAWEvent::operator delete(void* memory, std::size_t size) noexcept {
  internal::PoolFree(memory, size);
}

AWResult CAWEventQueue::Post(IAWEvent* event, std::uint32_t /*priority*/) {
  return loop_.Post(event);
}

}  // namespace keelbase
