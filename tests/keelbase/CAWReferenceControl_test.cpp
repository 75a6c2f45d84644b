// CAWReferenceControl_test.cpp - counted objects, and the check that one thread only uses an
// object.
#include "keelbase/CAWReferenceControl.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ChildTest.h"
#include "TraceLines.h"
#include "VirtualSlot.h"
#include "keelbase/CAWAutoPtr.h"

namespace keelbase {
namespace {

using zarn::test::ChildTest;

template <class Lock>
class CountedObject final : public CAWReferenceControlT<Lock> {
 public:
  explicit CountedObject(std::atomic<int>& alive) : alive_(alive) { ++alive_; }
  ~CountedObject() override { --alive_; }

 private:
  std::atomic<int>& alive_;
};

template <class Lock>
class CAWReferenceControl : public ::testing::Test {};
using Locks = ::testing::Types<CAWMutexThread, CAWMutexNullSingleThread>;
TYPED_TEST_SUITE(CAWReferenceControl, Locks);

TYPED_TEST(CAWReferenceControl, CountBeginsAtZeroAndIsAnswered) {
  std::atomic<int> alive{0};
  auto* object = new CountedObject<TypeParam>(alive);
  EXPECT_EQ(object->AddReference(), 1U);
  EXPECT_EQ(object->AddReference(), 2U);
  EXPECT_EQ(object->ReleaseReference(), 1U);
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(object->ReleaseReference(), 0U);
  EXPECT_EQ(alive, 0);
}

TYPED_TEST(CAWReferenceControl, ObjectGoesWithItsLastPointer) {
  std::atomic<int> alive{0};
  CAWAutoPtr<CountedObject<TypeParam>> first(new CountedObject<TypeParam>(alive));
  CAWAutoPtr<CountedObject<TypeParam>> second(first);
  first = nullptr;
  EXPECT_EQ(alive, 1);
  second = nullptr;
  EXPECT_EQ(alive, 0);
}

class Kept final : public CAWReferenceControlT<CAWMutexThread> {
 public:
  void OnReferenceDestory() override { ++destroyed; }
  int destroyed = 0;
};

TEST(CAWReferenceControlT, OwnerDecidesWhatTheEndIs) {
  Kept object;
  { const CAWAutoPtr<Kept> pointer(&object); }
  { const CAWAutoPtr<Kept> pointer(&object); }
  EXPECT_EQ(object.destroyed, 2);
}

TEST(CAWReferenceControlT, AtomicCountIsExactAcrossThreads) {
  std::atomic<int> alive{0};
  CAWAutoPtr<CountedObject<CAWMutexThread>> object(new CountedObject<CAWMutexThread>(alive));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([object] {
      for (int round = 0; round < 10000; ++round)
        CAWAutoPtr<CountedObject<CAWMutexThread>> copy(object);
    });
  }
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  EXPECT_EQ(alive, 1);
  object = nullptr;
  EXPECT_EQ(alive, 0);
}

TEST(CAWReferenceControlT, DestructorStandsFirst) {
  using Base = CAWReferenceControlT<CAWMutexThread>;
  EXPECT_EQ(zarn::test::VirtualSlot(&Base::OnReferenceDestory), 2);  // a destructor takes two
  EXPECT_EQ(zarn::test::VirtualSlot(&Base::AddReference), 3);
  EXPECT_EQ(zarn::test::VirtualSlot(&Base::ReleaseReference), 4);
}

TEST(CAWEnsureSingleThread, FirstThreadMayAskForEver) {
  const zarn::test::TraceLines lines;
  const CAWEnsureSingleThread check;
  check.EnsureSingleThread();
  check.EnsureSingleThread("anything");
  EXPECT_TRUE(lines.Get().empty());
}

TEST(CAWEnsureSingleThread, ThreadThatMadeItNeedNotBeTheOwner) {
  const zarn::test::TraceLines lines;
  const CAWEnsureSingleThread check;
  std::thread([&] {
    check.EnsureSingleThread();
    check.EnsureSingleThread();
  }).join();
  EXPECT_TRUE(lines.Get().empty());
}

// The library was built in the same way as this test.
TEST(CAWEnsureSingleThread, SecondThreadIsReportedAndStopsADebugBuild) {
  if (ChildTest::Role() == "misuse") {
    const CAWEnsureSingleThread check;
    check.EnsureSingleThread("a teapot");
    std::thread([&] { check.EnsureSingleThread("a teapot"); }).join();
    std::exit(0);
  }
  ChildTest child("misuse");
#ifdef NDEBUG
  EXPECT_EQ(child.Wait(), 0);
#else
  EXPECT_NE(child.Wait(), 0);
#endif
  const std::string errors = child.GetErrors();
  EXPECT_NE(errors.find("a teapot belongs to thread "), std::string::npos) << errors;
  EXPECT_NE(errors.find(" and was used from thread "), std::string::npos) << errors;
}

}  // namespace
}  // namespace keelbase
