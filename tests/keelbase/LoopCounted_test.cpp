// LoopCounted_test.cpp - counted objects that one thread has to itself.
#include "keelbase/internal/LoopCounted.h"

#include <gtest/gtest.h>

#include "keelbase/CAWAutoPtr.h"

namespace keelbase::internal {
namespace {

class CountedObject final : public LoopCounted {
 public:
  explicit CountedObject(int& ends) : ends_(ends) {}

 private:
  void OnLastReference() override {
    if (++ends_ == 2) delete this;
  }
  int& ends_;
};

TEST(LoopCounted, LastReferenceIsToldAndTheObjectDecidesWhenToGo) {
  int ends = 0;
  auto* const made = new CountedObject(ends);
  CAWAutoPtr<CountedObject> object(made);
  CAWAutoPtr<CountedObject> another = object;
  object = nullptr;
  EXPECT_EQ(ends, 0);
  another = nullptr;
  EXPECT_EQ(ends, 1);
  object = made;
  object = nullptr;
  EXPECT_EQ(ends, 2);
}

}  // namespace
}  // namespace keelbase::internal
