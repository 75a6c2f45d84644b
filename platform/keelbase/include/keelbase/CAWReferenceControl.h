// CAWReferenceControl.h - bases of reference-counted objects.
#pragma once

#include <atomic>
#include <cstdint>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWMutex.h"

namespace keelbase {

// Remembers the first thread that asks and complains about any other: through the trace facility
// (level 0, both threads named), and in debug builds of this library by abort().
class KEELBASE_API CAWEnsureSingleThread {
 public:
  // `what` names the operation in the complaint.
  void EnsureSingleThread(const char* what = "a single-threaded object") const {
    const std::uint64_t owner = owner_.load(std::memory_order_relaxed);
    const std::uint64_t caller = CurrentThread();
    if (owner != caller) Mismatch(what, owner, caller);
  }

 private:
  static std::uint64_t CurrentThread();
  void Mismatch(const char* what, std::uint64_t owner, std::uint64_t caller) const;

  mutable std::atomic<std::uint64_t> owner_{0};  // 0: nobody asked yet
};

// Lock policy of CAWReferenceControlT for objects that stay on one thread: a plain count.
class CAWMutexNullSingleThread {};

namespace internal {

template <class Lock>
class ReferenceCount;

template <>
class ReferenceCount<CAWMutexThread> {
 public:
  std::uint32_t Add() { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Release() { return count_.fetch_sub(1, std::memory_order_acq_rel) - 1; }

 private:
  std::atomic<std::uint32_t> count_{0};
};

template <>
class ReferenceCount<CAWMutexNullSingleThread> {
 public:
  std::uint32_t Add() {
    thread_.EnsureSingleThread();
    return ++count_;
  }
  std::uint32_t Release() {
    thread_.EnsureSingleThread();
    return --count_;
  }

 private:
  CAWEnsureSingleThread thread_;
  std::uint32_t count_ = 0;
};

}  // namespace internal

// Implements AddReference and ReleaseReference for CAWAutoPtr. The count starts at 0: whoever makes
// the object puts it into a CAWAutoPtr at once. When the count falls to 0, OnReferenceDestory()
// deletes it. Lock is CAWMutexThread (atomic count, any thread) or CAWMutexNullSingleThread (one
// thread, checked).
template <class Lock>
class CAWReferenceControlT {
 public:
  virtual ~CAWReferenceControlT() = default;
  virtual void OnReferenceDestory() { delete this; }

  // Both return the new count.
  virtual std::uint32_t AddReference() { return count_.Add(); }
  virtual std::uint32_t ReleaseReference() {
    const std::uint32_t left = count_.Release();
    if (left == 0) OnReferenceDestory();
    return left;
  }

 protected:
  CAWReferenceControlT() = default;
  CAWReferenceControlT(const CAWReferenceControlT&) = delete;
  CAWReferenceControlT& operator=(const CAWReferenceControlT&) = delete;

 private:
  internal::ReferenceCount<Lock> count_;
};

}  // namespace keelbase
