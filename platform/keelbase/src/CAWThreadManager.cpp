// CAWThreadManager.cpp - see CAWThreadManager.h.
#include "keelbase/CAWThreadManager.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <future>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include "ThreadSlots.h"
#include "keelbase/CAWSingleton.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"
#include "keelbase/internal/TraceError.h"

namespace keelbase {

namespace {

using internal::TheThreadSlots;
using internal::ThreadMaker;
using internal::ThreadSlot;
using internal::ThreadSlots;

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

// Lets what was sent be written, also on threads that were adopted.
class ThreadCleanUp final : public CAWCleanUpBase {
 public:
  ~ThreadCleanUp() override {
    internal::ForEachThread([](ThreadSlot&, internal::EventLoop& loop) { FinishLingers(loop); });
  }

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

}  // namespace

class internal::ThreadMaker {
 public:
  // Null when the system gives no descriptors.
  static CAWThread* Make(ThreadSlot& slot) {
    auto* thread = new CAWThread(slot.name);  // lives for ever, like the manager
    slot.process = ::getpid();
    if (thread->GetLoop().IsUsable()) return thread;
    delete thread;
    return nullptr;
  }

  // Null also when the system gives no thread.
  static CAWThread* MakeStarted(ThreadSlot& slot) {
    CAWThread* thread = Make(slot);
    if (thread == nullptr) return nullptr;
    try {
      slot.started = std::thread([&loop = thread->GetLoop(), name = slot.name] {
        ::pthread_setname_np(::pthread_self(), name);
        loop.BindToCurrentThread();
        loop.Run(EventLoop::Afterwards::destroyed);
      });
    } catch (const std::exception&) {
      delete thread;
      return nullptr;
    }
    return thread;
  }
};

CAWThreadManager* CAWThreadManager::Instance() {
  alignas(CAWThreadManager) static std::byte place[sizeof(CAWThreadManager)];  // as in Immortal.h
  static CAWThreadManager* const manager = new (place) CAWThreadManager;
  return manager;
}

namespace {

void ArmCleanUp(ThreadSlots& slots) AW_REQUIRES(slots.mutex) {
  if (slots.cleanUpArmedIn == ::getpid()) return;
  new ThreadCleanUp;
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
CAWThread* StartThread(ThreadSlots& slots, ThreadSlot& slot) try {
  const internal::MutexLock lock(slots.mutex);
  CAWThread* thread = slot.thread.load(std::memory_order_acquire);
  if (thread != nullptr) return thread;
  if (CAWCleanUpBase::HasRun()) return nullptr;
  ArmCleanUp(slots);
  thread = ThreadMaker::MakeStarted(slot);
  slot.thread.store(thread, std::memory_order_release);
  return thread;
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace

CAWThread* CAWThreadManager::GetThread(int type) {
  ThreadSlots& slots = TheThreadSlots();
  ThreadSlot* slot = slots.Find(type);
  if (slot == nullptr) return nullptr;
  CAWThread* thread = slot->thread.load(std::memory_order_acquire);
  if (thread != nullptr || type == TT_MAIN) return thread;
  return StartThread(slots, *slot);
}

AWResult CAWThreadManager::AdoptCurrentThread(int type) try {
  ThreadSlots& slots = TheThreadSlots();
  ThreadSlot* slot = slots.Find(type);
  if (slot == nullptr) return RefuseToAdopt("there is no such type of thread");
  if (internal::EventLoop::Current() != nullptr)
    return RefuseToAdopt("this is a platform thread already");
  const internal::MutexLock lock(slots.mutex);
  if (slot->thread.load(std::memory_order_relaxed) != nullptr)
    return RefuseToAdopt("that type has its thread; adopt before anything is made that needs it");
  ArmCleanUp(slots);
  CAWThread* thread = ThreadMaker::Make(*slot);
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
  for (ThreadSlot& slot : TheThreadSlots().all) {
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
