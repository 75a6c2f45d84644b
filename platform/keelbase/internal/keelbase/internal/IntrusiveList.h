// IntrusiveList.h - objects in a row, each with the place for its neighbours in itself: nothing is
// allocated, and each can leave from anywhere.
#pragma once

namespace keelbase::internal {

// A member of what is listed; the list's own.
template <class T>
struct ListPlace {
  T* earlier = nullptr;
  T* later = nullptr;
};

// `kPlace` is that member. Nobody is owned: each leaves before it is destroyed.
template <class T, ListPlace<T> T::*kPlace>
class IntrusiveList {
 public:
  bool IsEmpty() const { return first_ == nullptr; }
  T* First() const { return first_; }
  static T* After(const T& item) { return (item.*kPlace).later; }
  bool Contains(const T& item) const {
    return (item.*kPlace).earlier != nullptr || first_ == &item;
  }

  // At the end; not twice.
  void Append(T& item) {
    (item.*kPlace).earlier = last_;
    LaterOf(last_) = &item;
    last_ = &item;
  }

  // Does nothing when it is not there.
  void Remove(T& item) {
    if (!Contains(item)) return;
    const ListPlace<T> place = item.*kPlace;
    LaterOf(place.earlier) = place.later;
    (place.later != nullptr ? (place.later->*kPlace).earlier : last_) = place.earlier;
    item.*kPlace = {};
  }

 private:
  T*& LaterOf(T* item) { return item != nullptr ? (item->*kPlace).later : first_; }

  T* first_ = nullptr;
  T* last_ = nullptr;
};

}  // namespace keelbase::internal
