// ShmSegment_test.cpp - the memory of a connection: what is made, and what is refused.
#include "ShmSegment.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

#include "ChildTest.h"
#include "Sanitized.h"
#include "TempRoot.h"

namespace fshmipc {
namespace {

using zarn::test::ChildTest;
using zarn::test::IsSanitized;

constexpr std::uint32_t kRing = 64 * 1024;
constexpr off_t kWhole = 4096 + 2 * kRing;
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

// As Create makes it, but for what the test changes.
FileDescriptor MemoryFile(off_t size, int seals, bool reserve = true) {
  FileDescriptor file(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  EXPECT_TRUE(file);
  EXPECT_EQ(::ftruncate(file.Get(), size), 0);
  EXPECT_TRUE(!reserve || ::fallocate(file.Get(), 0, 0, size) == 0);
  EXPECT_EQ(::fcntl(file.Get(), F_ADD_SEALS, seals), 0);
  return file;
}

int Attach(const FileDescriptor& file, std::uint32_t ringSize = kRing) {
  ShmSegment segment;
  return segment.Attach(file, ringSize);
}

// Whether this process maps memory files of connections.
bool IsAnythingMapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.find("zarn-shmipc") != std::string::npos) return true;
  return false;
}

blkcnt_t BlocksOf(const FileDescriptor& file) {
  struct stat status {};
  EXPECT_EQ(::fstat(file.Get(), &status), 0);
  return status.st_blocks;
}

TEST(ShmSegment, RingSizesArePowersOfTwoFrom64KiBTo256MiB) {
  for (std::uint32_t size = 64 * 1024; size <= 256 * 1024 * 1024; size *= 2) {
    EXPECT_TRUE(IsRingSize(size));
    EXPECT_FALSE(IsRingSize(size + 1));
    EXPECT_FALSE(IsRingSize(size - 1));
    EXPECT_FALSE(IsRingSize(size / 4 * 3));
  }
  for (const std::uint32_t size : {0U, 1U, 4096U, 32768U, 512U * 1024 * 1024, 0x80000000U, ~0U})
    EXPECT_FALSE(IsRingSize(size)) << size;
}

TEST(ShmSegment, BothSidesSeeTheSameTwoRings) {
  ShmSegment made;
  ShmSegment attached;
  FileDescriptor file;
  ASSERT_EQ(made.Create(kRing, file), 0);
  ASSERT_EQ(attached.Attach(file, kRing), 0);
  EXPECT_EQ(made.ConnectorRing().size, kRing);
  made.ConnectorRing().bytes[kRing - 1] = 'c';
  made.AcceptorRing().bytes[0] = 'a';
  made.ConnectorRing().control->head = 7;
  made.AcceptorRing().control->head = 8;
  EXPECT_EQ(attached.ConnectorRing().bytes[kRing - 1], 'c');
  EXPECT_EQ(attached.AcceptorRing().bytes[0], 'a');
  EXPECT_EQ(attached.ConnectorRing().control->head, 7U);
  EXPECT_EQ(attached.AcceptorRing().control->head, 8U);
  EXPECT_EQ(made.ConnectorRing().bytes + kRing, made.AcceptorRing().bytes);
  EXPECT_TRUE(IsAnythingMapped());
}

TEST(ShmSegment, MemoryStartsAsZeros) {
  ShmSegment made;
  FileDescriptor file;
  ASSERT_EQ(made.Create(kRing, file), 0);
  std::string content(kWhole, 'x');
  ASSERT_EQ(::pread(file.Get(), content.data(), content.size(), 0), kWhole);
  EXPECT_EQ(content.find_first_not_of('\0'), std::string::npos);
}

TEST(ShmSegment, SizeOfTheFileCannotBeChanged) {
  ShmSegment made;
  FileDescriptor file;
  ASSERT_EQ(made.Create(kRing, file), 0);
  for (const off_t size : {off_t{0}, off_t{1}, kWhole - 1, kWhole + 1, 2 * kWhole}) {
    EXPECT_NE(::ftruncate(file.Get(), size), 0) << size;
    EXPECT_EQ(errno, EPERM) << size;
  }
  EXPECT_NE(::fallocate(file.Get(), 0, 0, kWhole + 4096), 0);
  EXPECT_NE(::pwrite(file.Get(), "x", 1, kWhole), 1);
  EXPECT_NE(::fcntl(file.Get(), F_ADD_SEALS, F_SEAL_WRITE), 0);
  const std::string again = "/proc/self/fd/" + std::to_string(file.Get());
  const FileDescriptor truncated(::open(again.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC));
  struct stat status {};
  ASSERT_EQ(::fstat(file.Get(), &status), 0);
  EXPECT_EQ(status.st_size, kWhole);
}

TEST(ShmSegment, MemoryIsReserved) {
  ShmSegment made;
  FileDescriptor file;
  ASSERT_EQ(made.Create(kRing, file), 0);
  EXPECT_GE(BlocksOf(file) * 512, kWhole);
}

TEST(ShmSegment, MemoryThatAPeerHasNotReservedIsRefused) {
  EXPECT_EQ(Attach(MemoryFile(kWhole, kSeals, false)), EPROTO);
  const FileDescriptor holed = MemoryFile(kWhole, kSeals);
  const int punch = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
  ASSERT_EQ(::fallocate(holed.Get(), punch, kWhole - 4096, 4096), 0);
  EXPECT_EQ(Attach(holed), EPROTO);
}

TEST(ShmSegment, HolesThatAPeerMakesLaterAreFilledAtATouch) {
  ShmSegment made;
  FileDescriptor file;
  ASSERT_EQ(made.Create(kRing, file), 0);
  made.ConnectorRing().bytes[0] = 'x';
  EXPECT_EQ(::fallocate(file.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, kWhole), 0);
  EXPECT_EQ(made.ConnectorRing().bytes[0], '\0');
  made.ConnectorRing().bytes[0] = 'y';
  EXPECT_EQ(made.ConnectorRing().bytes[0], 'y');
}

TEST(ShmSegment, WrongSizeIsRefused) {
  for (const off_t size : {off_t{0}, off_t{1}, kWhole - 1, kWhole + 1, off_t{4096}, 2 * kWhole}) {
    EXPECT_EQ(Attach(MemoryFile(size, kSeals, size != 0)), EPROTO) << size;
  }
  EXPECT_EQ(Attach(MemoryFile(kWhole, kSeals)), 0);
  EXPECT_EQ(Attach(MemoryFile(kWhole, kSeals), 2 * kRing), EPROTO);
  EXPECT_EQ(Attach(MemoryFile(kWhole, kSeals), kRing + 1), EPROTO);
  EXPECT_EQ(Attach(MemoryFile(4096 + 2 * 4096, kSeals), 4096), EPROTO);
  EXPECT_EQ(Attach(MemoryFile(4096, kSeals), 0), EPROTO);
  EXPECT_FALSE(IsAnythingMapped());
}

TEST(ShmSegment, MissingSealsAreRefused) {
  for (const int seals : {0, F_SEAL_SHRINK, F_SEAL_GROW, F_SEAL_SHRINK | F_SEAL_GROW,
                          F_SEAL_SHRINK | F_SEAL_SEAL, F_SEAL_GROW | F_SEAL_SEAL}) {
    EXPECT_EQ(Attach(MemoryFile(kWhole, seals)), EPROTO) << seals;
  }
}

TEST(ShmSegment, MemoryThatCannotBeWrittenIsAnError) {
  EXPECT_NE(Attach(MemoryFile(kWhole, kSeals | F_SEAL_WRITE)), 0);
  const FileDescriptor file = MemoryFile(kWhole, kSeals);
  const std::string again = "/proc/self/fd/" + std::to_string(file.Get());
  EXPECT_NE(Attach(FileDescriptor(::open(again.c_str(), O_RDONLY | O_CLOEXEC))), 0);
}

TEST(ShmSegment, WhatIsNoMemoryFileIsRefused) {
  const zarn::test::TempDir dir;
  const std::string path = dir.GetPath() + "/file";
  const FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::ftruncate(file.Get(), kWhole), 0);
  EXPECT_EQ(Attach(file), EPROTO);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  EXPECT_EQ(Attach(FileDescriptor(ends[0])), EPROTO);
  EXPECT_EQ(Attach(FileDescriptor(ends[1])), EPROTO);
  EXPECT_EQ(Attach(FileDescriptor(::open(dir.GetPath().c_str(), O_RDONLY | O_CLOEXEC))), EPROTO);
  EXPECT_EQ(Attach(FileDescriptor(::open("/dev/zero", O_RDWR | O_CLOEXEC))), EPROTO);
  EXPECT_EQ(Attach(FileDescriptor()), EPROTO);
}

TEST(ShmSegment, MemoryThatCannotBeSealedIsRefused) {
  const FileDescriptor file(::memfd_create("test", MFD_CLOEXEC));
  ASSERT_EQ(::ftruncate(file.Get(), kWhole), 0);
  EXPECT_EQ(Attach(file), EPROTO);
}

TEST(ShmSegment, HugePagesAreRefused) {
  FileDescriptor file(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB));
  if (!file) return;  // a system without them
  constexpr off_t kHuge = 2 * 1024 * 1024;
  ASSERT_EQ(::ftruncate(file.Get(), kHuge), 0);
  ASSERT_EQ(::fcntl(file.Get(), F_ADD_SEALS, kSeals), 0);
  EXPECT_EQ(Attach(file), EPROTO);
  EXPECT_EQ(Attach(file, kHuge / 2), EPROTO);
}

TEST(ShmSegment, MovingHandsTheMemoryOn) {
  ShmSegment first;
  FileDescriptor file;
  ASSERT_EQ(first.Create(kRing, file), 0);
  char* const bytes = first.ConnectorRing().bytes;
  ShmSegment second(std::move(first));
  EXPECT_EQ(second.ConnectorRing().bytes, bytes);
  ShmSegment third;
  third = std::move(second);
  EXPECT_EQ(third.ConnectorRing().bytes, bytes);
  third.ConnectorRing().bytes[0] = 'x';
  third.Unmap();
  third.Unmap();
  EXPECT_FALSE(IsAnythingMapped());
}

TEST(ShmSegment, MakingAnotherOneUnmapsTheFirst) {
  ShmSegment segment;
  FileDescriptor file;
  ASSERT_EQ(segment.Create(2 * kRing, file), 0);
  ASSERT_EQ(segment.Create(kRing, file), 0);
  segment.Unmap();
  EXPECT_FALSE(IsAnythingMapped());
}

// --- limits of the process: errors and never signals ---

// In a child: its exit code is the result.
int ResultWith(int resource, rlim_t limit, const FileDescriptor* memory) {
  FileDescriptor file;
  ShmSegment segment;
  const rlimit limits{limit, limit};
  if (::setrlimit(static_cast<__rlimit_resource>(resource), &limits) != 0) return 255;
  return memory != nullptr ? segment.Attach(*memory, kRing) : segment.Create(kRing, file);
}

// Without what a process writes at its end: that is under the limit, too.
TEST(ShmSegment, LimitOfFileSizesIsAnError) {
  if (ChildTest::Role() == "create") ::_exit(ResultWith(RLIMIT_FSIZE, kWhole - 1, nullptr));
  if (ChildTest::Role() == "create within") ::_exit(ResultWith(RLIMIT_FSIZE, kWhole, nullptr));
  if (ChildTest::Role() == "attach") {
    const FileDescriptor memory = MemoryFile(kWhole, kSeals);
    ::_exit(ResultWith(RLIMIT_FSIZE, kWhole - 1, &memory));
  }
  EXPECT_EQ(ChildTest("create").Wait(), EFBIG);
  EXPECT_EQ(ChildTest("create within").Wait(), 0);
  EXPECT_EQ(ChildTest("attach").Wait(), 0);  // the file is not ours: the limit is not about it
}

TEST(ShmSegment, LimitOfAddressSpaceIsAnError) {
  const FileDescriptor memory = MemoryFile(kWhole, kSeals);
  if (ChildTest::Role() == "create") std::exit(ResultWith(RLIMIT_AS, 1 << 20, nullptr));
  if (ChildTest::Role() == "attach") std::exit(ResultWith(RLIMIT_AS, 1 << 20, &memory));
  if (IsSanitized()) return;
  EXPECT_EQ(ChildTest("create").Wait(), ENOMEM);
  EXPECT_EQ(ChildTest("attach").Wait(), ENOMEM);
}

TEST(ShmSegment, FailureLeavesTheFileOfTheCallerAlone) {
  ShmSegment segment;
  FileDescriptor file;
  ASSERT_EQ(segment.Create(kRing, file), 0);
  EXPECT_EQ(segment.Attach(MemoryFile(kWhole + 1, kSeals), kRing), EPROTO);
  segment.ConnectorRing().bytes[0] = 'x';  // still mapped
  EXPECT_EQ(Attach(file), 0);
}

}  // namespace
}  // namespace fshmipc
