// CAWShmBase_test.cpp - shared memory segments, between objects and processes. Files that a process
// left behind are written by hand; a death is a real SIGKILL of a child.
#include "keelbase/CAWShmBase.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "ForkedChild.h"
#include "Sanitized.h"
#include "ShmBaseFixture.h"
#include "keelbase/internal/FileDescriptor.h"

namespace keelbase {
namespace {

namespace fs = std::filesystem;
using internal::FileDescriptor;
using internal::kShmHeaderSize;
using zarn::test::ForkedChild;

class CAWShmBaseTest : public ShmBaseFixture {};

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
  EXPECT_EQ(shm.Create(path_ + std::string("\0x", 2), 10, 0), AW_ERROR_FAILURE);
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
  ForkedChild child([this] {
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
  ForkedChild child([this] {
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
    std::vector<std::unique_ptr<ForkedChild>> children;
    for (std::uint64_t i = 0; i < kProcesses; ++i)
      children.push_back(std::make_unique<ForkedChild>(work));
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
    ForkedChild child([&] {
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

}  // namespace
}  // namespace keelbase
