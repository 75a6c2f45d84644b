// FailingAllocations.h - counts the allocations of the calling thread and lets one of them fail.
// The test program's operator new is replaced for that (FailingAllocations.cpp), but for the thread
// sanitizer, which does not let it in.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>

namespace zarn::test {

std::size_t CountAllocations();  // of this thread so far

template <class Work>
std::size_t AllocationsOf(Work work) {
  const std::size_t before = CountAllocations();
  work();
  return CountAllocations() - before;
}

// As long as it lives, an allocation of this thread fails: the one of that number from now on (1:
// the next), or with `andAllLater` that and whatever comes after it.
class FailingAllocation {
 public:
  explicit FailingAllocation(std::size_t number, bool andAllLater = false);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  bool HasFailed() const;
};

// Lets each allocation of some work fail in turn, until the work is done without a failure:
//   for (EachAllocation each; each.Next();) {
//     each.Try([&] { result = object.Work(); });
//     EXPECT_EQ(result, each.HasFailed() ? AW_ERROR_FAILURE : AW_OK);
//   }
// With a `stride` only each so many-th.
class EachAllocation {
 public:
  explicit EachAllocation(bool andAllLater = false, std::size_t stride = 1)
      : andAllLater_(andAllLater), stride_(stride) {}
  ~EachAllocation() { EXPECT_FALSE(hasFailed_) << "given up at allocation " << number_; }
  EachAllocation(const EachAllocation&) = delete;
  EachAllocation& operator=(const EachAllocation&) = delete;

  bool Next() {
    number_ += number_ == 0 ? 1 : stride_;
    return hasFailed_ && number_ <= kMaxNumber;
  }

  template <class Work>
  void Try(Work work) {
    const FailingAllocation failing(number_, andAllLater_);
    work();
    hasFailed_ = failing.HasFailed();
  }

  bool HasFailed() const { return hasFailed_; }      // in the last Try
  std::size_t GetNumber() const { return number_; }  // of the one that fails

 private:
  static constexpr std::size_t kMaxNumber = 5000;

  const bool andAllLater_;
  const std::size_t stride_;
  std::size_t number_ = 0;
  bool hasFailed_ = true;
};

}  // namespace zarn::test
