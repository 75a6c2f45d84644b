// CAWThreadManager.cpp - see CAWThreadManager.h.
#include "keelbase/CAWThreadManager.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <future>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include "StopThreads.h"
#include "keelbase/CAWSingleton.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"
#include "keelbase/internal/TraceError.h"

namespace keelbase {

namespace {

struct Slot {
  const char* name;
  std::atomic<CAWThread*> thread{nullptr};
  std::thread started;  // not joinable: the thread was adopted
  pid_t process = 0;    // that has the thread
};

struct Slots {
  std::array<Slot, 3> all{Slot{"zarn-main", {}, {}, {}}, Slot{"zarn-network", {}, {}, {}},
                          Slot{"zarn-task", {}, {}, {}}};
  internal::Mutex mutex;                          // guards making a thread
  pid_t cleanUpArmedIn AW_GUARDED_BY(mutex) = 0;  // that process

  Slot* Find(int type) {
    if (type < CAWThreadManager::TT_MAIN || type > CAWThreadManager::TT_TASK) return nullptr;
    return &all[static_cast<std::size_t>(type - 1)];
  }
};

Slots& TheSlots() { return internal::Immortal<Slots>(); }

// But for those that a forked child has from its parent.
template <class Act>
void ForEachThread(Act&& act) {
  for (Slot& slot : TheSlots().all) {
    CAWThread* thread = slot.thread.load(std::memory_order_acquire);
    if (thread != nullptr && slot.process == ::getpid()) act(slot, thread->GetLoop());
  }
}

// Serves what lingers on a loop's thread. Stays alive until the loop has run or dropped it.
class FinishThere final : public internal::LoopTask {
 public:
  // False: the loop has stopped meanwhile, and nothing was served.
  static std::future<bool> Post(internal::EventLoop& loop) {
    const auto task = std::make_shared<FinishThere>(loop);
    auto served = task->served_.get_future();
    task->self_ = task;
    if (!loop.PostTask(*task)) task->OnDropped();
    return served;
  }

  explicit FinishThere(internal::EventLoop& loop) : loop_(loop) {}

 private:
  void OnLoopTask() override {
    loop_.FinishLingers();
    Tell(true);
  }
  void OnDropped() override { Tell(false); }

  void Tell(bool served) {
    const auto last = std::move(self_);
    served_.set_value(served);
  }

  internal::EventLoop& loop_;
  std::promise<bool> served_;
  std::shared_ptr<FinishThere> self_;
};

}  // namespace

// Lets what was sent be written, also on threads that were adopted.
class ThreadCleanUp final : public CAWCleanUpBase {
 public:
  ~ThreadCleanUp() override {
    ForEachThread([](Slot&, internal::EventLoop& loop) { FinishLingers(loop); });
  }

  static CAWThread* Make(Slot& slot);
  static CAWThread* MakeStarted(Slot& slot);
  static void Arm() { new ThreadCleanUp; }

 private:
  static void FinishLingers(internal::EventLoop& loop) {
    if (loop.IsRunning()) {
      auto served = FinishThere::Post(loop);
      const auto told = served.wait_for(std::chrono::seconds(3));
      if (told != std::future_status::ready || served.get()) return;  // it may hang for good
    }
    loop.FinishLingers();
  }
};

namespace {

// What this thread was doing on them is over, and so is what waited for it to return.
void EndLoopsThatExitWasCalledOn() {
  bool inherited = true;
  while (std::exchange(inherited, false)) {
    ForEachThread([&](Slot&, internal::EventLoop& served) {
      if (!served.IsHeldHere()) return;
      ForEachThread([&](Slot&, internal::EventLoop& loop) {
        if (loop.InheritFrom(served)) inherited = true;
      });
    });
  }
  ForEachThread([](Slot& slot, internal::EventLoop& loop) {
    if (!loop.IsHeldHere()) return;
    if (slot.started.joinable()) slot.started.detach();
    loop.End();
  });
}

// What a forked child has of its parent's: neither may be waited for nor touch what both share.
void LeaveThreadsOfParent() {
  for (Slot& slot : TheSlots().all) {
    CAWThread* thread = slot.thread.load(std::memory_order_acquire);
    if (thread != nullptr && slot.process != ::getpid()) thread->GetLoop().LeaveToParent();
  }
}

}  // namespace

// Threads that are waited for may themselves wait for a loop that nobody will serve any more: those
// loops end first.
void internal::StopThreads() {
  LeaveThreadsOfParent();
  { const MutexLock wait(TheSlots().mutex); }  // for one that is just being started
  EndLoopsThatExitWasCalledOn();
  ForEachThread([](Slot& slot, EventLoop& loop) {
    if (slot.started.joinable()) {
      loop.Stop();
    } else {
      loop.End();
    }
  });
  ForEachThread([](Slot& slot, EventLoop&) {
    if (slot.started.joinable()) slot.started.join();
  });
}

CAWThread* ThreadCleanUp::Make(Slot& slot) {
  auto* thread = new CAWThread(slot.name);  // lives for ever, like the manager
  slot.process = ::getpid();
  if (thread->GetLoop().IsUsable()) return thread;
  delete thread;
  return nullptr;
}

CAWThread* ThreadCleanUp::MakeStarted(Slot& slot) {
  CAWThread* thread = Make(slot);
  if (thread == nullptr) return nullptr;
  try {
    slot.started = std::thread([&loop = thread->GetLoop(), name = slot.name] {
      ::pthread_setname_np(::pthread_self(), name);
      loop.BindToCurrentThread();
      loop.Run(internal::EventLoop::Afterwards::destroyed);
    });
  } catch (const std::exception&) {
    delete thread;
    return nullptr;
  }
  return thread;
}

CAWThreadManager* CAWThreadManager::Instance() {
  alignas(CAWThreadManager) static std::byte place[sizeof(CAWThreadManager)];  // as in Immortal.h
  static CAWThreadManager* const manager = new (place) CAWThreadManager;
  return manager;
}

namespace {

void ArmCleanUp(Slots& slots) AW_REQUIRES(slots.mutex) {
  if (slots.cleanUpArmedIn == ::getpid()) return;
  ThreadCleanUp::Arm();
  slots.cleanUpArmedIn = ::getpid();
}

// Whoever overlooks the result has a program that ends at once, or does nothing: the line says why.
AWResult RefuseToAdopt(const char* why) {
  char line[128];
  CAWTextFormator text(line, sizeof line);
  text << "AdoptCurrentThread: " << why;
  internal::TraceLine(text.View());
  return AW_ERROR_FAILURE;
}

// Null when the system gives no thread, no descriptors or no memory.
CAWThread* StartThread(Slots& slots, Slot& slot) try {
  const internal::MutexLock lock(slots.mutex);
  CAWThread* thread = slot.thread.load(std::memory_order_acquire);
  if (thread != nullptr) return thread;
  if (CAWCleanUpBase::HasRun()) return nullptr;
  ArmCleanUp(slots);
  thread = ThreadCleanUp::MakeStarted(slot);
  slot.thread.store(thread, std::memory_order_release);
  return thread;
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace

CAWThread* CAWThreadManager::GetThread(int type) {
  Slots& slots = TheSlots();
  Slot* slot = slots.Find(type);
  if (slot == nullptr) return nullptr;
  CAWThread* thread = slot->thread.load(std::memory_order_acquire);
  if (thread != nullptr || type == TT_MAIN) return thread;
  return StartThread(slots, *slot);
}

AWResult CAWThreadManager::AdoptCurrentThread(int type) try {
  Slots& slots = TheSlots();
  Slot* slot = slots.Find(type);
  if (slot == nullptr) return RefuseToAdopt("there is no such type of thread");
  if (internal::EventLoop::Current() != nullptr)
    return RefuseToAdopt("this is a platform thread already");
  const internal::MutexLock lock(slots.mutex);
  if (slot->thread.load(std::memory_order_relaxed) != nullptr)
    return RefuseToAdopt("that type has its thread; adopt before anything is made that needs it");
  ArmCleanUp(slots);
  CAWThread* thread = ThreadCleanUp::Make(*slot);
  if (thread == nullptr) return AW_ERROR_FAILURE;
  thread->adopted_ = true;
  thread->GetLoop().BindToCurrentThread();
  slot->thread.store(thread, std::memory_order_release);
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

CAWThread* CAWThreadManager::GetCurrent() {
  const internal::EventLoop* loop = internal::EventLoop::Current();
  if (loop == nullptr) return nullptr;
  for (Slot& slot : TheSlots().all) {
    CAWThread* thread = slot.thread.load(std::memory_order_acquire);
    if (thread != nullptr && &thread->GetLoop() == loop) return thread;
  }
  return nullptr;
}

CAWThread* CAWThreadManager::GetCurrentOrNetwork() {
  CAWThread* thread = GetCurrent();
  return thread != nullptr ? thread : GetThread(TT_NETWORK);
}

CAWMutexThread& CAWThreadManager::GetSingletonMutex() {
  return internal::Immortal<CAWMutexThread>();
}

}  // namespace keelbase
