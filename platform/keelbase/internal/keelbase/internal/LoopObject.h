// LoopObject.h - counted objects that are used on one loop's thread and let go on any.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {

// Implements the counting half of Interface. References may be dropped on any thread; the object is
// destroyed on its loop's thread, or in place once that has stopped.
template <class Interface>
class LoopObject : public Interface {
 public:
  std::uint32_t AddReference() final { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t ReleaseReference() final {
    const std::uint32_t left = count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) Destroy();
    return left;
  }

  EventLoop& GetLoop() const { return loop_; }

 protected:
  explicit LoopObject(EventLoop& loop) : loop_(loop), destroyThere_(this) {}
  ~LoopObject() override = default;

  // The last reference is gone; on the thread that dropped it. After this no callback may come.
  virtual void OnLastReference() {}

  // The last reference is gone, but the object may still wait for its loop to destroy it.
  bool IsLetGo() const { return destroying_.load(std::memory_order_acquire); }

 private:
  class DestroyThere final : public LoopTask {
   public:
    explicit DestroyThere(LoopObject* object) : object_(object) {}
    void OnLoopTask() override { delete object_; }
    void OnDropped() override { delete object_; }

   private:
    LoopObject* object_;
  };

  // On its way out the object may be referred to once more, by a callback of the loop that began
  // just before or by its own destructor: that must not destroy it again.
  void Destroy() {
    if (destroying_.exchange(true)) return;
    OnLastReference();
    if (loop_.IsCurrent() || !loop_.PostTask(destroyThere_)) delete this;
  }

  EventLoop& loop_;
  DestroyThere destroyThere_;
  std::atomic<std::uint32_t> count_{0};
  std::atomic<bool> destroying_{false};
};

}  // namespace keelbase::internal
