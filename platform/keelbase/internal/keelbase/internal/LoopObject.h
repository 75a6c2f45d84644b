// LoopObject.h - counted objects that are used on one loop's thread and let go on any.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "keelbase/internal/EventLoop.h"

namespace keelbase::internal {

// Implements the counting half of Interface. References may be dropped on any thread; the object is
// destroyed on its loop's thread; once the loop has stopped, in place, by one thread at a time.
// A thread that has no loop waits in its last release for a callback of the object that is
// running, so that none is left behind; one that has a loop might be waited for itself.
template <class Interface>
class LoopObject : public Interface {
 public:
  std::uint32_t AddReference() final {
    return Users(state_.fetch_add(kUser, std::memory_order_relaxed)) + 1;
  }
  std::uint32_t ReleaseReference() final {
    std::uint64_t state = state_.load(std::memory_order_acquire);
    do {
      while (Users(state) == 1 && Holders(state) != 0 && loop_.CanAwaitCallbacks())
        state = AwaitCallback(state);
    } while (!state_.compare_exchange_weak(state, state - kUser, std::memory_order_acq_rel));
    if (Users(state) == 1 && Holders(state) == 0) Destroy();
    return Users(state) - 1;
  }

  EventLoop& GetLoop() const { return loop_; }

  // Keeps the object through a callback of its loop, or is false: see Hold().
  class Held {
   public:
    explicit Held(LoopObject* object) : object_(object) {}
    ~Held() {
      if (object_ != nullptr) object_->EndCallback();
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    explicit operator bool() const { return object_ != nullptr; }

   private:
    LoopObject* const object_;
  };

  // What a callback of the loop begins with. False when the last reference is gone or about to go,
  // or callbacks are over: there is nobody to tell, and the object must not be referred to again.
  Held Hold() {
    if (loop_.AreCallbacksOver()) return Held(nullptr);
    std::uint64_t state = state_.load(std::memory_order_relaxed);
    while (HasListener(state)) {
      if (state_.compare_exchange_weak(state, state + kHolder, std::memory_order_release))
        return Held(this);
    }
    return Held(nullptr);
  }

 protected:
  explicit LoopObject(EventLoop& loop) : loop_(loop), destroyThere_(this) {}
  ~LoopObject() override = default;

  // The last reference is gone; on the thread that dropped it, which the loop may be waiting for:
  // it must wait for nobody. What only the loop may undo is left to the destructor.
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

  // The state: references of users, callbacks that run, and whether a thread waits for these to end
  // before it drops the last reference.
  static constexpr std::uint64_t kUser = 1;
  static constexpr std::uint64_t kHolder = std::uint64_t{1} << 32;
  static constexpr std::uint64_t kAwaited = std::uint64_t{1} << 63;
  static std::uint32_t Users(std::uint64_t state) { return static_cast<std::uint32_t>(state); }
  static std::uint64_t Holders(std::uint64_t state) { return (state & ~kAwaited) / kHolder; }
  static bool HasListener(std::uint64_t state) {
    return Users(state) != 0 && ((state & kAwaited) == 0 || Holders(state) != 0);
  }

  // With the last reference in hand, so that the object stays. The state as it is then, to be
  // looked at again: a reference may have been added, another callback may have begun.
  std::uint64_t AwaitCallback(std::uint64_t state) {
    if (!state_.compare_exchange_strong(state, state | kAwaited)) return state;
    loop_.AwaitCallback([this] {
      const std::uint64_t now = state_.load(std::memory_order_acquire);
      return Holders(now) == 0 || (now & kAwaited) == 0;
    });
    return state_.load(std::memory_order_relaxed);
  }

  void EndCallback() {
    EventLoop& loop = loop_;  // whoever waits may destroy the object as soon as it is not held
    std::uint64_t state = state_.load(std::memory_order_relaxed);
    std::uint64_t left = 0;
    do {
      left = state - kHolder;
      if (Holders(left) == 0 && Users(left) > 1) left &= ~kAwaited;
    } while (!state_.compare_exchange_weak(state, left, std::memory_order_acq_rel));
    if (Holders(left) != 0) return;
    if (Users(left) == 0) return Destroy();
    if ((state & kAwaited) != 0) loop.TellCallbackEnded();
  }

  // On its way out the object may be referred to once more, by its own destructor: that must not
  // destroy it again.
  void Destroy() {
    if (destroying_.exchange(true)) return;
    OnLastReference();
    loop_.HandOver(destroyThere_);
  }

  EventLoop& loop_;
  DestroyThere destroyThere_;
  std::atomic<std::uint64_t> state_{0};
  std::atomic<bool> destroying_{false};
};

}  // namespace keelbase::internal
