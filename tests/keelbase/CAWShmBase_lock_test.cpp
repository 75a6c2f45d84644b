// CAWShmBase_lock_test.cpp - the lock of a shared memory segment, and what is told when its holder
// dies.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "ForkedChild.h"
#include "ShmBaseFixture.h"
#include "keelbase/CAWShmBase.h"
#include "keelbase/internal/FileDescriptor.h"

namespace keelbase {
namespace {

namespace fs = std::filesystem;
using internal::FileDescriptor;
using zarn::test::ForkedChild;

class CAWShmBaseLock : public ShmBaseFixture {};

// A child that holds the lock of the segment at `path`; it is held once the constructor is done.
class LockHolder {
 public:
  explicit LockHolder(const CAWString& path)
      : pipe_(MakePipe()), child_([&] { return Hold(path); }) {
    char byte = 0;
    EXPECT_EQ(::read(pipe_[0].Get(), &byte, 1), 1);
  }
  void Kill() { child_.Kill(); }

 private:
  static std::vector<FileDescriptor> MakePipe() {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    std::vector<FileDescriptor> pipe;
    pipe.emplace_back(ends[0]);
    pipe.emplace_back(ends[1]);
    return pipe;
  }
  bool Hold(const CAWString& path) {
    CAWShmBase shm;
    if (shm.Create(path, 64, 0) != 0 || shm.MemLock() != 0) return false;
    Counter(shm) = 42;
    if (::write(pipe_[1].Get(), "x", 1) != 1) return false;
    for (;;) ::pause();
  }

  std::vector<FileDescriptor> pipe_;
  ForkedChild child_;
};

TEST_F(CAWShmBaseLock, LockExcludesThreadsThroughOneAndThroughTwoObjects) {
  constexpr std::uint64_t kRounds = 5000;
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 64, 0), AW_OK);
  ASSERT_EQ(second.Create(path_, 64, 0), AW_OK);
  const auto work = [](CAWShmBase& shm) {
    for (std::uint64_t round = 0; round < kRounds; ++round) {
      EXPECT_EQ(shm.MemLock(), AW_OK);
      ++Counter(shm);
      EXPECT_EQ(shm.MemUnlock(), AW_OK);
    }
  };
  std::vector<std::thread> threads;
  for (CAWShmBase* shm : {&first, &first, &second}) threads.emplace_back(work, std::ref(*shm));
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Counter(first), 3 * kRounds);
}

TEST_F(CAWShmBaseLock, LockIsNotPartOfTheMemory) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 10000, 0), AW_OK);
  ASSERT_EQ(first.MemLock(), AW_OK);
  std::memset(first.GetAddress(), 0xff, first.GetSize());
  EXPECT_EQ(first.MemUnlock(), AW_OK);
  ASSERT_EQ(second.Create(path_, 10000, 0), AW_OK);
  EXPECT_EQ(second.MemLock(), AW_OK);
  EXPECT_FALSE(second.WasAbandoned());
}

TEST_F(CAWShmBaseLock, HolderThatLocksAgainIsToldInsteadOfWaiting) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(second.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(first.MemLock(), AW_OK);
  EXPECT_EQ(first.MemLock(), AW_ERROR_FAILURE);
  EXPECT_EQ(second.MemLock(), AW_ERROR_FAILURE);
  EXPECT_EQ(first.MemUnlock(), AW_OK);
  EXPECT_EQ(second.MemLock(), AW_OK);
}

TEST_F(CAWShmBaseLock, OnlyTheHolderUnlocksAndOnlyThroughItsObject) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(second.Create(path_, 10, 0), AW_OK);
  EXPECT_EQ(first.MemUnlock(), AW_ERROR_FAILURE);
  ASSERT_EQ(first.MemLock(), AW_OK);
  EXPECT_EQ(second.MemUnlock(), AW_ERROR_FAILURE);
  AWResult elsewhere = AW_OK;
  std::thread([&] { elsewhere = first.MemUnlock(); }).join();
  EXPECT_EQ(elsewhere, AW_ERROR_FAILURE);
  ForkedChild child([&] { return first.MemUnlock() == AW_ERROR_FAILURE; });
  EXPECT_TRUE(child.Succeeded());
  EXPECT_EQ(first.MemUnlock(), AW_OK);
}

TEST_F(CAWShmBaseLock, ClosingGivesTheLockBack) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(second.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(first.MemLock(), AW_OK);
  ASSERT_EQ(first.Close(1), AW_OK);
  EXPECT_EQ(second.MemLock(), AW_OK);
  EXPECT_FALSE(second.WasAbandoned());
}

TEST_F(CAWShmBaseLock, ClosingTheOtherObjectDoesNotGiveTheLockBack) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(second.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(first.MemLock(), AW_OK);
  ASSERT_EQ(second.Close(1), AW_OK);
  EXPECT_EQ(first.MemLock(), AW_ERROR_FAILURE);  // still held
  EXPECT_EQ(first.MemUnlock(), AW_OK);
}

TEST_F(CAWShmBaseLock, DeathOfTheHolderIsToldOnceToWhoeverComesNext) {
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 64, 0), AW_OK);
  LockHolder holder(path_);
  holder.Kill();
  ASSERT_EQ(shm.MemLock(), AW_OK);
  EXPECT_TRUE(shm.WasAbandoned());
  EXPECT_EQ(Counter(shm), 42U);
  ASSERT_EQ(trace_.Get().size(), 1U);
  EXPECT_NE(trace_.Get()[0].text.find("died"), CAWString::npos);
  EXPECT_EQ(shm.MemUnlock(), AW_OK);
  EXPECT_FALSE(shm.WasAbandoned());
  ASSERT_EQ(shm.MemLock(), AW_OK);
  EXPECT_FALSE(shm.WasAbandoned());
  EXPECT_EQ(shm.MemUnlock(), AW_OK);
  EXPECT_EQ(trace_.Get().size(), 1U);
}

TEST_F(CAWShmBaseLock, WhoWaitsForTheLockGetsItWhenTheHolderDies) {
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 64, 0), AW_OK);
  LockHolder holder(path_);
  AWResult result = AW_ERROR_FAILURE;
  bool abandoned = false;
  std::thread waiter([&] {
    result = shm.MemLock();
    abandoned = shm.WasAbandoned();
    shm.MemUnlock();
  });
  holder.Kill();
  waiter.join();
  EXPECT_EQ(result, AW_OK);
  EXPECT_TRUE(abandoned);
}

TEST_F(CAWShmBaseLock, ThreadThatEndsWithTheLockCountsAsDead) {
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 64, 0), AW_OK);
  std::thread([&] { EXPECT_EQ(shm.MemLock(), AW_OK); }).join();
  ASSERT_EQ(shm.MemLock(), AW_OK);
  EXPECT_TRUE(shm.WasAbandoned());
}

TEST_F(CAWShmBaseLock, LockThatWasHeldWhenTheMachineWentDownIsFreedAndTold) {
  {
    LockHolder holder(path_);
    fs::copy_file(path_, In("copy"));  // as the disk has it at that moment
  }
  fs::rename(In("copy"), path_);
  ShmHeader header = ReadHeader();
  ASSERT_EQ(header.held, 1U);
  header.bootId[0] = header.bootId[0] == '0' ? '1' : '0';
  WriteHeader(header);

  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 64, 0), AW_OK);
  EXPECT_EQ(Counter(shm), 42U);
  ASSERT_EQ(shm.MemLock(), AW_OK);
  EXPECT_TRUE(shm.WasAbandoned());
  EXPECT_EQ(shm.MemUnlock(), AW_OK);
  CAWShmBase later;
  ASSERT_EQ(later.Create(path_, 64, 0), AW_OK);
  ASSERT_EQ(later.MemLock(), AW_OK);
  EXPECT_FALSE(later.WasAbandoned());
}

}  // namespace
}  // namespace keelbase
