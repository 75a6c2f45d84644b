// CAWShmBase_test.cpp - shared memory segments, between objects, threads and processes. Files that
// a process left behind are written by hand; a death is a real SIGKILL of a child.
#include "keelbase/CAWShmBase.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "Sanitized.h"
#include "TempRoot.h"
#include "TraceLines.h"
#include "keelbase/internal/FileDescriptor.h"
#include "keelbase/internal/ShmHeader.h"

namespace keelbase {
namespace {

namespace fs = std::filesystem;
using internal::FileDescriptor;
using internal::kShmHeaderSize;
using internal::ShmHeader;

class CAWShmBaseTest : public testing::Test {
 protected:
  CAWString In(const char* name) const { return dir_.GetPath() + "/" + name; }

  // Writes `content` to the segment's file without going through the class.
  void Write(const CAWString& content) const { std::ofstream(path_, std::ios::binary) << content; }

  ShmHeader ReadHeader() const {
    ShmHeader header{};
    std::ifstream(path_, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof(header));
    return header;
  }
  void WriteHeader(const ShmHeader& header) const {
    std::fstream(path_, std::ios::binary | std::ios::in | std::ios::out)
        .write(reinterpret_cast<const char*>(&header), sizeof(header));
  }

  // Expects that Create fails, says why, and leaves the object empty.
  void ExpectRefused(std::size_t size, const char* why) const {
    CAWShmBase shm;
    EXPECT_EQ(shm.Create(path_, size, 0), AW_ERROR_FAILURE);
    EXPECT_EQ(shm.GetAddress(), nullptr);
    EXPECT_EQ(shm.GetSize(), 0U);
    ASSERT_FALSE(trace_.Get().empty());
    EXPECT_NE(trace_.Get().back().text.find(why), CAWString::npos) << trace_.Get().back().text;
    EXPECT_NE(trace_.Get().back().text.find(path_), CAWString::npos) << trace_.Get().back().text;
  }

  zarn::test::TraceLines trace_;
  zarn::test::TempDir dir_;
  const CAWString path_ = In("segment");
};

char* Bytes(const CAWShmBase& shm) { return static_cast<char*>(shm.GetAddress()); }
std::uint64_t& Counter(const CAWShmBase& shm) {
  return *static_cast<std::uint64_t*>(shm.GetAddress());
}
bool IsZero(const CAWShmBase& shm) {
  return std::all_of(Bytes(shm), Bytes(shm) + shm.GetSize(), [](char byte) { return byte == 0; });
}

// A child process that runs `work` and exits with 0 when it answers true.
class Child {
 public:
  explicit Child(const std::function<bool()>& work) : pid_(::fork()) {
    if (pid_ == 0) ::_exit(work() ? 0 : 1);
  }
  ~Child() { Kill(); }

  bool Succeeded() {
    int status = -1;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  void Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(std::exchange(pid_, -1), nullptr, 0);
  }

 private:
  pid_t pid_;
};

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
  Child child_;
};

TEST_F(CAWShmBaseTest, NewSegmentIsZeroedOwnedByTheUserAndFullyUsable) {
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 10000, 0), AW_OK);
  EXPECT_EQ(shm.GetSize(), 10000U);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(shm.GetAddress()) % 4096, 0U);
  EXPECT_TRUE(IsZero(shm));
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_GE(static_cast<std::uint64_t>(status.st_blocks) * 512, 10000U);
}

TEST_F(CAWShmBaseTest, ModeDoesNotDependOnTheUmask) {
  const mode_t before = ::umask(0);
  CAWShmBase open;
  EXPECT_EQ(open.Create(In("open"), 1, 0), AW_OK);
  ::umask(0777);
  CAWShmBase closed;
  EXPECT_EQ(closed.Create(In("closed"), 1, 0), AW_OK);
  ::umask(before);
  for (const char* name : {"open", "closed"}) {
    struct stat status {};
    ASSERT_EQ(::stat(In(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U) << name;
  }
}

TEST_F(CAWShmBaseTest, TwoObjectsShareTheMemory) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 100, 0), AW_OK);
  Bytes(first)[99] = 'x';
  ASSERT_EQ(second.Create(path_, 100, 0), AW_OK);
  EXPECT_EQ(Bytes(second)[99], 'x');
  EXPECT_NE(first.GetAddress(), second.GetAddress());
}

TEST_F(CAWShmBaseTest, LargerSegmentIsAttachedWhole) {
  CAWShmBase large;
  CAWShmBase small;
  ASSERT_EQ(large.Create(path_, 5000, 0), AW_OK);
  ASSERT_EQ(small.Create(path_, 10, 0), AW_OK);
  EXPECT_EQ(small.GetSize(), 5000U);
  Bytes(small)[4999] = 'x';
  EXPECT_EQ(Bytes(large)[4999], 'x');
}

TEST_F(CAWShmBaseTest, SmallerSegmentIsAnErrorAndStaysAsItIs) {
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 100, 0), AW_OK);
  Bytes(shm)[0] = 'x';
  ExpectRefused(101, "smaller");
  EXPECT_EQ(Bytes(shm)[0], 'x');
  CAWShmBase again;
  EXPECT_EQ(again.Create(path_, 100, 0), AW_OK);
}

TEST_F(CAWShmBaseTest, MemoryStaysWhenEverybodyHasDetached) {
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 10, 0), AW_OK);
  Bytes(shm)[9] = 'x';
  EXPECT_EQ(shm.Close(1), AW_OK);
  ASSERT_EQ(shm.Create(path_, 10, 0), AW_OK);
  EXPECT_EQ(Bytes(shm)[9], 'x');
}

TEST_F(CAWShmBaseTest, MisuseIsRefused) {
  ExpectRefused(0, "size");
  ExpectRefused(SIZE_MAX, "size");
  CAWShmBase shm;
  EXPECT_EQ(shm.Create(path_, 10, 1), AW_ERROR_FAILURE);
  EXPECT_FALSE(fs::exists(path_));
  ASSERT_EQ(shm.Create(path_, 10, 0), AW_OK);
  void* const address = shm.GetAddress();
  EXPECT_EQ(shm.Create(In("other"), 10, 0), AW_ERROR_FAILURE);
  EXPECT_EQ(shm.GetAddress(), address);
  EXPECT_FALSE(fs::exists(In("other")));
  EXPECT_EQ(shm.Close(0), AW_ERROR_FAILURE);
  EXPECT_EQ(shm.GetAddress(), address);
}

TEST_F(CAWShmBaseTest, DetachedObjectAnswersSo) {
  CAWShmBase shm;
  EXPECT_EQ(shm.Close(1), AW_OK);
  EXPECT_EQ(shm.MemLock(), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(shm.MemUnlock(), AW_ERROR_NOT_INITIALIZED);
  ASSERT_EQ(shm.Create(path_, 10, 0), AW_OK);
  EXPECT_EQ(shm.Close(1), AW_OK);
  EXPECT_EQ(shm.GetAddress(), nullptr);
  EXPECT_EQ(shm.GetSize(), 0U);
  EXPECT_EQ(shm.MemLock(), AW_ERROR_NOT_INITIALIZED);
}

TEST_F(CAWShmBaseTest, MissingDirectoryIsAnError) {
  CAWShmBase shm;
  EXPECT_EQ(shm.Create(In("missing/segment"), 10, 0), AW_ERROR_FAILURE);
  EXPECT_EQ(shm.Create("", 10, 0), AW_ERROR_FAILURE);
}

TEST_F(CAWShmBaseTest, SymbolicLinkIsRefusedAndItsTargetUntouched) {
  fs::create_symlink(In("target"), path_);
  ExpectRefused(10, "symbolic link");
  EXPECT_FALSE(fs::exists(In("target")));
}

TEST_F(CAWShmBaseTest, WhatIsNotARegularFileIsRefused) {
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  ExpectRefused(10, "not a regular file");
  fs::remove(path_);
  fs::create_directory(path_);
  ExpectRefused(10, "cannot be opened");
  EXPECT_TRUE(fs::is_directory(path_));
}

TEST_F(CAWShmBaseTest, FileOfAnotherUserIsRefused) {
  if (::geteuid() !=
      0) {  // only root can make a file for another user; here it is the system's own
    CAWShmBase shm;
    EXPECT_EQ(shm.Create("/etc/hostname", 10, 0), AW_ERROR_FAILURE);
    return;
  }
  Write("");
  ASSERT_EQ(::chown(path_.c_str(), 12345, 12345), 0);
  ExpectRefused(10, "another user");
  EXPECT_EQ(fs::file_size(path_), 0U);
}

TEST_F(CAWShmBaseTest, ForeignContentIsRefusedAndStays) {
  for (const CAWString& content : {CAWString("x"), CAWString("some text"), CAWString(7, '\0'),
                                   CAWString(9000, '\0'), CAWString(9000, '\xff')}) {
    Write(content);
    ExpectRefused(10, "not a segment");
    EXPECT_EQ(fs::file_size(path_), content.size());
  }
}

TEST_F(CAWShmBaseTest, DamagedSegmentIsRefused) {
  {
    CAWShmBase shm;
    ASSERT_EQ(shm.Create(path_, 10000, 0), AW_OK);
  }
  const ShmHeader good = ReadHeader();

  ShmHeader bad = good;
  bad.size = UINT64_MAX - 100;
  WriteHeader(bad);
  ExpectRefused(10, "damaged");
  bad = good;
  bad.version = 99;
  WriteHeader(bad);
  ExpectRefused(10, "another version");
  bad = good;
  bad.lockSize = 1;
  WriteHeader(bad);
  ExpectRefused(10, "another version");

  WriteHeader(good);
  for (const std::uintmax_t size : {std::uintmax_t{kShmHeaderSize + 9999},
                                    std::uintmax_t{kShmHeaderSize}, std::uintmax_t{sizeof(bad)}}) {
    fs::resize_file(path_, size);
    ExpectRefused(10, "damaged");
  }
  fs::resize_file(path_, sizeof(good) - 1);
  ExpectRefused(10, "not a segment");
}

TEST_F(CAWShmBaseTest, EmptyFileIsMadeASegment) {
  Write("");
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 10, 0), AW_OK);
  EXPECT_TRUE(IsZero(shm));
}

TEST_F(CAWShmBaseTest, WhatADeadCreatorLeftHalfMadeIsMadeAnew) {
  ShmHeader header{};
  header.state = internal::kShmMaking;
  for (const std::size_t size : {sizeof(header), std::size_t{4096}, std::size_t{1U << 20}}) {
    Write(CAWString(size, 'x'));
    WriteHeader(header);
    CAWShmBase shm;
    ASSERT_EQ(shm.Create(path_, 10000, 0), AW_OK);
    EXPECT_EQ(shm.GetSize(), 10000U);
    EXPECT_TRUE(IsZero(shm));
    EXPECT_EQ(shm.MemLock(), AW_OK);
  }
}

TEST_F(CAWShmBaseTest, HolesAreFilledWhenASegmentIsAttached) {
  constexpr std::size_t kSize = 1U << 20;
  {
    CAWShmBase shm;
    ASSERT_EQ(shm.Create(path_, kSize, 0), AW_OK);
  }
  fs::resize_file(path_, kShmHeaderSize);
  fs::resize_file(path_, kShmHeaderSize + kSize);
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, kSize, 0), AW_OK);
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_GE(static_cast<std::uint64_t>(status.st_blocks) * 512, kSize);
}

TEST_F(CAWShmBaseTest, NoRoomIsAnErrorAndLeavesNothing) {
  // Of a file system in memory it is known at once that more than all of it is too much.
  struct statvfs room {};
  ASSERT_EQ(::statvfs("/dev/shm", &room), 0);
  const CAWString path = "/dev/shm/" + fs::path(dir_.GetPath()).filename().string();
  CAWShmBase shm;
  EXPECT_EQ(shm.Create(path, (room.f_blocks + 1) * room.f_frsize, 0), AW_ERROR_FAILURE);
  EXPECT_FALSE(fs::exists(path));
  ASSERT_FALSE(trace_.Get().empty());
  EXPECT_NE(trace_.Get().back().text.find("no room"), CAWString::npos);
}

TEST_F(CAWShmBaseTest, LimitOnFileSizesIsAnErrorAndNoSignal) {
  Child child([this] {
    rlimit limit{};
    limit.rlim_cur = limit.rlim_max = 100000;
    CAWShmBase tooLarge;
    CAWShmBase fits;
    return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
           tooLarge.Create(path_, 100000, 0) == AW_ERROR_FAILURE &&
           fits.Create(path_, 100000 - kShmHeaderSize, 0) == AW_OK;
  });
  EXPECT_TRUE(child.Succeeded());
}

TEST_F(CAWShmBaseTest, LimitOfAddressSpaceIsAnError) {
  if (zarn::test::IsSanitized()) return;
  Child child([this] {
    const rlimit limit{1 << 20, 1 << 20};
    CAWShmBase shm;
    return ::setrlimit(RLIMIT_AS, &limit) == 0 &&
           shm.Create(path_, 1 << 20, 0) == AW_ERROR_FAILURE && shm.GetAddress() == nullptr;
  });
  EXPECT_TRUE(child.Succeeded());
}

// How many descriptors of this process stand for `path`.
std::ptrdiff_t CountDescriptors(const CAWString& path) {
  std::error_code ignored;
  const auto isIt = [&](const fs::directory_entry& entry) {
    return fs::read_symlink(entry.path(), ignored) == path;
  };
  return std::count_if(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator(), isIt);
}

TEST_F(CAWShmBaseTest, NobodyAttachesToWhatAnotherIsJustMaking) {
  const FileDescriptor maker(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(maker.Get(), LOCK_EX), 0);
  Write("not yet a segment");
  CAWShmBase shm;
  AWResult result = AW_ERROR_FAILURE;
  std::thread attacher([&] { result = shm.Create(path_, 10, 0); });
  while (CountDescriptors(path_) < 2) std::this_thread::yield();
  ASSERT_EQ(::ftruncate(maker.Get(), 0), 0);
  ASSERT_EQ(::flock(maker.Get(), LOCK_UN), 0);
  attacher.join();
  EXPECT_EQ(result, AW_OK);
}

TEST_F(CAWShmBaseTest, FileThatIsDeletedWhileWeWaitForItIsNotAttached) {
  FileDescriptor maker(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(maker.Get(), LOCK_EX), 0);
  CAWShmBase first;
  AWResult result = AW_ERROR_FAILURE;
  std::thread attacher([&] { result = first.Create(path_, 10, 0); });
  while (CountDescriptors(path_) < 2) std::this_thread::yield();
  fs::remove(path_);
  maker.Reset();
  attacher.join();
  ASSERT_EQ(result, AW_OK);
  CAWShmBase second;
  ASSERT_EQ(second.Create(path_, 10, 0), AW_OK);
  Bytes(first)[0] = 'x';
  EXPECT_EQ(Bytes(second)[0], 'x');
}

TEST_F(CAWShmBaseTest, ProcessesThatStartTogetherShareOneSegment) {
  constexpr int kRounds = 20;
  constexpr std::uint64_t kProcesses = 4;
  constexpr std::uint64_t kAdds = 200;
  for (int round = 0; round < kRounds; ++round) {
    const CAWString path = In("race") + std::to_string(round);
    const auto work = [&] {
      CAWShmBase shm;
      if (shm.Create(path, 1U << 16, 0) != 0) return false;
      for (std::uint64_t i = 0; i < kAdds; ++i) {
        if (shm.MemLock() != 0) return false;
        ++Counter(shm);
        if (shm.MemUnlock() != 0) return false;
      }
      return true;
    };
    std::vector<std::unique_ptr<Child>> children;
    for (std::uint64_t i = 0; i < kProcesses; ++i)
      children.push_back(std::make_unique<Child>(work));
    for (auto& child : children) EXPECT_TRUE(child->Succeeded());
    CAWShmBase shm;
    ASSERT_EQ(shm.Create(path, 1, 0), AW_OK);
    EXPECT_EQ(Counter(shm), kProcesses * kAdds);
  }
}

TEST_F(CAWShmBaseTest, CreatorThatIsKilledAtAnyMomentLeavesNothingThatHinders) {
  constexpr int kKills = 40;
  for (int kill = 0; kill < kKills; ++kill) {
    const CAWString path = In("killed") + std::to_string(kill);
    Child child([&] {
      for (;;) {
        CAWShmBase shm;
        if (shm.Create(path, 1U << 18, 0) != 0) return false;
        fs::remove(path);
      }
    });
    while (!fs::exists(path)) std::this_thread::yield();
    for (int turn = 0; turn < kill; ++turn) std::this_thread::yield();
    child.Kill();
    CAWShmBase shm;
    ASSERT_EQ(shm.Create(path, 1U << 18, 0), AW_OK);
    EXPECT_TRUE(IsZero(shm));
    EXPECT_EQ(shm.MemLock(), AW_OK);
    fs::remove(path);
  }
}

TEST_F(CAWShmBaseTest, LockExcludesThreadsThroughOneAndThroughTwoObjects) {
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

TEST_F(CAWShmBaseTest, LockIsNotPartOfTheMemory) {
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

TEST_F(CAWShmBaseTest, HolderThatLocksAgainIsToldInsteadOfWaiting) {
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

TEST_F(CAWShmBaseTest, OnlyTheHolderUnlocksAndOnlyThroughItsObject) {
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
  Child child([&] { return first.MemUnlock() == AW_ERROR_FAILURE; });
  EXPECT_TRUE(child.Succeeded());
  EXPECT_EQ(first.MemUnlock(), AW_OK);
}

TEST_F(CAWShmBaseTest, ClosingGivesTheLockBack) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(second.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(first.MemLock(), AW_OK);
  ASSERT_EQ(first.Close(1), AW_OK);
  EXPECT_EQ(second.MemLock(), AW_OK);
  EXPECT_FALSE(second.WasAbandoned());
}

TEST_F(CAWShmBaseTest, ClosingTheOtherObjectDoesNotGiveTheLockBack) {
  CAWShmBase first;
  CAWShmBase second;
  ASSERT_EQ(first.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(second.Create(path_, 10, 0), AW_OK);
  ASSERT_EQ(first.MemLock(), AW_OK);
  ASSERT_EQ(second.Close(1), AW_OK);
  EXPECT_EQ(first.MemLock(), AW_ERROR_FAILURE);  // still held
  EXPECT_EQ(first.MemUnlock(), AW_OK);
}

TEST_F(CAWShmBaseTest, DeathOfTheHolderIsToldOnceToWhoeverComesNext) {
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

TEST_F(CAWShmBaseTest, WhoWaitsForTheLockGetsItWhenTheHolderDies) {
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

TEST_F(CAWShmBaseTest, ThreadThatEndsWithTheLockCountsAsDead) {
  CAWShmBase shm;
  ASSERT_EQ(shm.Create(path_, 64, 0), AW_OK);
  std::thread([&] { EXPECT_EQ(shm.MemLock(), AW_OK); }).join();
  ASSERT_EQ(shm.MemLock(), AW_OK);
  EXPECT_TRUE(shm.WasAbandoned());
}

TEST_F(CAWShmBaseTest, LockThatWasHeldWhenTheMachineWentDownIsFreedAndTold) {
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
