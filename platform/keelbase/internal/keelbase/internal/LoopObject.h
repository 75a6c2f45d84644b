// LoopObject.h - counted objects that are used on one loop's thread and let go on any.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {

// Implements the counting half of Interface. References may be dropped on any thread; the object is
// destroyed on its loop's thread, or once that has stopped in place, while nobody else works there.
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

  // Keeps the object through a callback of its loop, or is false: see Hold().
  class Held {
   public:
    explicit Held(LoopObject* object) : object_(object) {}
    ~Held() {
      if (object_ != nullptr) object_->ReleaseReference();
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    explicit operator bool() const { return object_ != nullptr; }

   private:
    LoopObject* const object_;
  };

  // What a callback of the loop begins with. False when the last reference is gone: there is nobody
  // to tell, and the object, which waits to be destroyed, must not be referred to again.
  Held Hold() {
    std::uint32_t count = count_.load(std::memory_order_relaxed);
    while (count != 0 &&
           !count_.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) {
    }
    return Held(count != 0 ? this : nullptr);
  }

 protected:
  explicit LoopObject(EventLoop& loop) : loop_(loop), destroyThere_(this) {}
  ~LoopObject() override = default;

  // The last reference is gone; on the thread that dropped it. After this no callback may come.
  virtual void OnLastReference() {}

 private:
  class DestroyThere final : public LoopTask {
   public:
    explicit DestroyThere(LoopObject* object) : object_(object) {}
    void OnLoopTask() override { delete object_; }
    void OnDropped() override { delete object_; }

   private:
    LoopObject* object_;
  };

  // On its way out the object may be referred to once more, by its own destructor: that must not
  // destroy it again.
  void Destroy() {
    if (destroying_.exchange(true)) return;
    OnLastReference();
    loop_.HandOver(destroyThere_);
  }

  EventLoop& loop_;
  DestroyThere destroyThere_;
  std::atomic<std::uint32_t> count_{0};
  std::atomic<bool> destroying_{false};
};

}  // namespace keelbase::internal
