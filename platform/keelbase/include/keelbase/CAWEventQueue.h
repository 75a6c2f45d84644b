// CAWEventQueue.h - events that are carried out on another thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"

namespace keelbase {

namespace internal {
class EventLoop;
}

// One piece of work for a platform thread. Made by `new` (memory comes from a pool), handed to
// CAWEventQueue::Post, which owns it from then on.
// An exception that leaves OnEventFire is a bug of the event: it is traced and ends the process.
class KEELBASE_API IAWEvent {
 public:
  virtual AWResult OnEventFire() = 0;  // runs once on the queue's thread; the result is not used
  virtual void OnDestorySelf();        // called after the event was fired or dropped; deletes it
  virtual ~IAWEvent();

  static void* operator new(std::size_t size);
  static void operator delete(void* memory, std::size_t size) noexcept;

  // Of types that ask for more alignment than the pool gives; their memory is the system's.
  static void* operator new(std::size_t size, std::align_val_t alignment) {
    return ::operator new(size, alignment);
  }
  static void operator delete(void* memory, std::align_val_t alignment) noexcept {
    ::operator delete(memory, alignment);
  }
};

// The queue of one CAWThread: first in, first out. Lives as long as its thread object, for ever.
class KEELBASE_API CAWEventQueue {
 public:
  // From any thread, also from inside an event. Takes the event over. 0; 10001 for null, and once
  // the process's clean-up has ended the thread or without memory (the event is then destroyed
  // without being fired).
  // `priority` is accepted for callers that name one; all events wait in one line.
  AWResult Post(IAWEvent* event, std::uint32_t priority = 1);

 private:
  friend class CAWThread;
  explicit CAWEventQueue(internal::EventLoop& loop) : loop_(loop) {}
  internal::EventLoop& loop_;
};

}  // namespace keelbase
