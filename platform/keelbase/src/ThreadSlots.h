// ThreadSlots.h - the platform threads that the process has.
#pragma once

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <thread>

#include "keelbase/CAWThreadManager.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"

namespace keelbase::internal {

struct ThreadSlot {
  const char* name;
  std::atomic<CAWThread*> thread{nullptr};
  std::thread started;  // not joinable: the thread was adopted
  pid_t process = 0;    // that has the thread
};

struct ThreadSlots {
  std::array<ThreadSlot, 3> all{ThreadSlot{"zarn-main", {}, {}, {}},
                                ThreadSlot{"zarn-network", {}, {}, {}},
                                ThreadSlot{"zarn-task", {}, {}, {}}};
  Mutex mutex;                                    // guards making a thread
  pid_t cleanUpArmedIn AW_GUARDED_BY(mutex) = 0;  // that process

  ThreadSlot* Find(int type) {
    if (type < CAWThreadManager::TT_MAIN || type > CAWThreadManager::TT_TASK) return nullptr;
    return &all[static_cast<std::size_t>(type - 1)];
  }
};

inline ThreadSlots& TheThreadSlots() { return Immortal<ThreadSlots>(); }

// But for those that a forked child has from its parent.
template <class Act>
void ForEachThread(Act&& act) {
  for (ThreadSlot& slot : TheThreadSlots().all) {
    CAWThread* thread = slot.thread.load(std::memory_order_acquire);
    if (thread != nullptr && slot.process == ::getpid()) act(slot, thread->GetLoop());
  }
}

}  // namespace keelbase::internal
