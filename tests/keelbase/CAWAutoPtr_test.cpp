// CAWAutoPtr_test.cpp - the intrusive pointer, on an object that counts in the open.
#include "keelbase/CAWAutoPtr.h"

#include <gtest/gtest.h>

#include <utility>

namespace keelbase {
namespace {

struct Counted {
  int references = 0;
  int largest = 0;
  int value = 7;
  void (*onRelease)(Counted&) = nullptr;

  void AddReference() {
    ++references;
    largest = references > largest ? references : largest;
  }
  void ReleaseReference() {
    --references;
    if (onRelease != nullptr) onRelease(*this);
  }
};

using Pointer = CAWAutoPtr<Counted>;

TEST(CAWAutoPtr, HoldsOneReference) {
  Counted object;
  {
    const Pointer pointer(&object);
    EXPECT_EQ(object.references, 1);
    EXPECT_TRUE(static_cast<bool>(pointer));
    EXPECT_EQ(pointer.Get(), &object);
    EXPECT_EQ(pointer->value, 7);
    EXPECT_EQ(&*pointer, &object);
  }
  EXPECT_EQ(object.references, 0);
}

TEST(CAWAutoPtr, EmptyPointerIsNull) {
  const Pointer none;
  const Pointer null(nullptr);
  EXPECT_FALSE(static_cast<bool>(none));
  EXPECT_TRUE(none == nullptr);
  EXPECT_TRUE(none == null);
  EXPECT_EQ(null.Get(), nullptr);
}

TEST(CAWAutoPtr, CopiesCount) {
  Counted object;
  const Pointer first(&object);
  const Pointer second(first);
  Pointer third;
  third = second;
  EXPECT_EQ(object.references, 3);
  EXPECT_TRUE(first == third);
  EXPECT_FALSE(first != third);
}

TEST(CAWAutoPtr, MoveTakesTheReferenceAlong) {
  Counted object;
  Pointer first(&object);
  Pointer second(std::move(first));
  Pointer third;
  third = std::move(second);
  EXPECT_EQ(object.references, 1);
  EXPECT_EQ(object.largest, 1);
  EXPECT_TRUE(third != nullptr);
}

TEST(CAWAutoPtr, AssignmentDropsTheOldOne) {
  Counted one;
  Counted two;
  Pointer pointer(&one);
  pointer = &two;
  EXPECT_EQ(one.references, 0);
  EXPECT_EQ(two.references, 1);
  pointer = nullptr;
  EXPECT_EQ(two.references, 0);
  pointer = static_cast<Counted*>(nullptr);
  EXPECT_FALSE(static_cast<bool>(pointer));
}

TEST(CAWAutoPtr, AssigningItselfNeverDropsTheLastReference) {
  Counted object;
  Pointer pointer(&object);
  object.onRelease = [](Counted& self) { EXPECT_GT(self.references, 0); };
  Pointer& same = pointer;
  pointer = same;
  pointer = std::move(same);
  pointer = pointer.Get();
  EXPECT_EQ(object.references, 1);
  object.onRelease = nullptr;
}

Pointer* watched = nullptr;

TEST(CAWAutoPtr, ObjectThatLooksBackWhileItGoesFindsNull) {
  Counted object;
  Pointer pointer(&object);
  watched = &pointer;
  bool looked = false;
  static bool* lookedAt = nullptr;
  lookedAt = &looked;
  object.onRelease = [](Counted&) {
    EXPECT_EQ(watched->Get(), nullptr);
    *lookedAt = true;
  };
  pointer = nullptr;
  EXPECT_TRUE(looked);
}

}  // namespace
}  // namespace keelbase
