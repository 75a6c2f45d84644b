// CAWAutoPtr.h - intrusive pointer to reference-counted objects.
#pragma once

#include <cstddef>
#include <utility>

namespace keelbase {

// Holds one reference: AddReference() on taking, ReleaseReference() on letting go.
// Threads: like a plain pointer; whether references may be dropped on any thread is the pointee's
// rule. The pointer is cleared before the old reference is dropped, so a destructor that looks back
// finds null.
template <class T>
class CAWAutoPtr {
 public:
  CAWAutoPtr() = default;
  CAWAutoPtr(std::nullptr_t) {}
  CAWAutoPtr(T* object) : object_(object) { Add(); }
  CAWAutoPtr(const CAWAutoPtr& other) : object_(other.object_) { Add(); }
  CAWAutoPtr(CAWAutoPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ~CAWAutoPtr() { Drop(object_); }

  CAWAutoPtr& operator=(const CAWAutoPtr& other) {
    if (this != &other) *this = other.object_;
    return *this;
  }
  CAWAutoPtr& operator=(CAWAutoPtr&& other) noexcept {
    if (this != &other) Drop(std::exchange(object_, std::exchange(other.object_, nullptr)));
    return *this;
  }
  CAWAutoPtr& operator=(T* object) {
    if (object != nullptr) object->AddReference();
    Drop(std::exchange(object_, object));
    return *this;
  }
  CAWAutoPtr& operator=(std::nullptr_t) {
    Drop(std::exchange(object_, nullptr));
    return *this;
  }

  T* Get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  friend bool operator==(const CAWAutoPtr& a, const CAWAutoPtr& b) {
    return a.object_ == b.object_;
  }
  friend bool operator!=(const CAWAutoPtr& a, const CAWAutoPtr& b) {
    return a.object_ != b.object_;
  }
  friend bool operator==(const CAWAutoPtr& a, std::nullptr_t) { return a.object_ == nullptr; }
  friend bool operator!=(const CAWAutoPtr& a, std::nullptr_t) { return a.object_ != nullptr; }

 private:
  void Add() {
    if (object_ != nullptr) object_->AddReference();
  }
  static void Drop(T* object) {
    if (object != nullptr) object->ReleaseReference();
  }

  T* object_ = nullptr;
};

}  // namespace keelbase
