// CZARNShareMemory_test.cpp - named segments below an install root of the test, and CreateMemory;
// the third party is another process.
#include "zarn/utils/CZARNShareMemory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string_view>

#include "ForkedChild.h"
#include "StoreTrouble.h"
#include "TempRoot.h"
#include "TraceLines.h"
#include "VirtualSlot.h"
#include "keelbase/CAWAutoPtr.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::utils {
namespace {

namespace fs = std::filesystem;
using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::CAWString;
using test::ForkedChild;
using test::VirtualSlot;
using Memory = keelbase::CAWAutoPtr<CZARNShareMemory>;

class CZARNShareMemoryTest : public testing::Test {
 protected:
  CAWString PathOf(const CAWString& name) const {
    return root_.GetPath() + "/system/zarn/shm/zarnshmm/zarn_shm_" + name;
  }

  test::TraceLines trace_;
  test::TempRoot root_;
};

char* Bytes(const Memory& memory) { return static_cast<char*>(memory->GetAddress()); }

Memory Make(const CAWString& name, unsigned int size) {
  return new CZARNShareMemory(name, size);  // into the pointer at once
}

TEST(CZARNShareMemorySlots, StandInOrderBehindTheDestructor) {
  EXPECT_EQ(VirtualSlot(&CZARNShareMemory::OnReferenceDestory), 2);
  EXPECT_EQ(VirtualSlot(&CZARNShareMemory::AddReference), 3);
  EXPECT_EQ(VirtualSlot(&CZARNShareMemory::ReleaseReference), 4);
  EXPECT_EQ(VirtualSlot(&CZARNShareMemory::MemLock), 5);
  EXPECT_EQ(VirtualSlot(&CZARNShareMemory::MemUnlock), 6);
}

TEST_F(CZARNShareMemoryTest, MakesNothingUntilToldTo) {
  const Memory memory = Make("cfg", 100);
  EXPECT_EQ(memory->GetAddress(), nullptr);
  EXPECT_EQ(memory->GetSize(), 0U);
  EXPECT_EQ(memory->MemLock(), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(memory->MemUnlock(), AW_ERROR_NOT_INITIALIZED);
  EXPECT_TRUE(fs::is_empty(root_.GetPath() + "/system"));
}

TEST_F(CZARNShareMemoryTest, MakesTheDirectoriesAndTheSegmentAndRemovesItsFile) {
  Memory memory = Make("cfg", 100);
  ASSERT_EQ(memory->createshm(), 0);
  EXPECT_TRUE(fs::is_regular_file(PathOf("cfg")));
  EXPECT_EQ(memory->GetSize(), 100U);
  std::memset(memory->GetAddress(), 'x', memory->GetSize());
  memory = nullptr;
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
  EXPECT_TRUE(fs::is_directory(fs::path(PathOf("cfg")).parent_path()));
}

TEST_F(CZARNShareMemoryTest, WithoutAnInstallRootNothingIsMade) {
  const test::ScopedEnv unset("ZARN_ROOT", std::nullopt);
  const Memory memory = Make("cfg", 100);
  EXPECT_EQ(memory->createshm(), -1);
  EXPECT_EQ(memory->GetAddress(), nullptr);
  EXPECT_TRUE(fs::is_empty(root_.GetPath() + "/system"));
}

TEST_F(CZARNShareMemoryTest, AfterAFailureForLackOfARootNothingIsRemoved) {
  const Memory other = Make("cfg", 100);
  ASSERT_EQ(other->createshm(), 0);
  {
    const test::ScopedEnv unset("ZARN_ROOT", std::nullopt);
    EXPECT_EQ(Make("cfg", 100)->createshm(), -1);
  }
  EXPECT_TRUE(fs::exists(PathOf("cfg")));
}

TEST_F(CZARNShareMemoryTest, TwoObjectsOfANameShareItAndTheEndOfOneRemovesTheFileForBoth) {
  Memory first = Make("cfg", 100);
  const Memory second = Make("cfg", 50);
  ASSERT_EQ(first->createshm(), 0);
  ASSERT_EQ(second->createshm(), 0);
  EXPECT_EQ(second->GetSize(), 100U);
  Bytes(first)[99] = 'x';
  EXPECT_EQ(Bytes(second)[99], 'x');
  first = nullptr;
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
  EXPECT_EQ(Bytes(second)[99], 'x');

  const Memory third = Make("cfg", 100);
  ASSERT_EQ(third->createshm(), 0);
  EXPECT_EQ(Bytes(third)[99], '\0');
}

TEST_F(CZARNShareMemoryTest, LastReferenceDeletesTheObject) {
  auto* memory = new CZARNShareMemory("cfg", 100);
  ASSERT_EQ(memory->createshm(), 0);
  EXPECT_EQ(memory->AddReference(), 1U);
  EXPECT_EQ(memory->AddReference(), 2U);
  EXPECT_EQ(memory->ReleaseReference(), 1U);
  EXPECT_TRUE(fs::exists(PathOf("cfg")));
  EXPECT_EQ(memory->ReleaseReference(), 0U);
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
}

TEST_F(CZARNShareMemoryTest, CreatingTwiceIsRefusedAndKeepsTheSegment) {
  Memory memory = Make("cfg", 100);
  ASSERT_EQ(memory->createshm(), 0);
  Bytes(memory)[0] = 'x';
  const test::TempRoot otherRoot;
  EXPECT_EQ(memory->createshm(), 10001);
  EXPECT_EQ(Bytes(memory)[0], 'x');
  memory = nullptr;
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
}

TEST_F(CZARNShareMemoryTest, OneThatIsTooSmallIsRefusedAndRemovedAllTheSame) {
  const Memory small = Make("cfg", 100);
  ASSERT_EQ(small->createshm(), 0);
  Memory large = Make("cfg", 101);
  EXPECT_EQ(large->createshm(), 10001);
  EXPECT_EQ(large->GetAddress(), nullptr);
  EXPECT_TRUE(fs::exists(PathOf("cfg")));
  large = nullptr;
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
}

TEST_F(CZARNShareMemoryTest, ANameWithANulByteIsRefusedAndTouchesNoOther) {
  const Memory memory = Make("cfg", 100);
  ASSERT_EQ(memory->createshm(), 0);
  Memory cut = Make(CAWString("cfg\0two", 7), 100);
  EXPECT_EQ(cut->createshm(), 10001);
  cut = nullptr;
  EXPECT_TRUE(fs::exists(PathOf("cfg")));
}

TEST_F(CZARNShareMemoryTest, NameThatLeadsElsewhereIsRefusedAndTouchesNothing) {
  const std::string precious = PathOf("cfg") + ".precious";
  fs::create_directories(fs::path(precious).parent_path());
  std::ofstream(precious) << "x";
  Memory memory = Make(CAWString("x/../zarn_shm_cfg.precious"), 100);
  EXPECT_EQ(memory->createshm(), 10001);
  memory = nullptr;
  EXPECT_TRUE(fs::exists(precious));
}

TEST_F(CZARNShareMemoryTest, DirectoryInThePlaceOfTheFileIsRefused) {
  fs::create_directories(PathOf("cfg"));
  std::ofstream(PathOf("cfg") + "/file") << "x";
  Memory memory = Make("cfg", 100);
  EXPECT_EQ(memory->createshm(), 10001);
  memory = nullptr;
  EXPECT_TRUE(fs::exists(PathOf("cfg") + "/file"));
}

TEST_F(CZARNShareMemoryTest, EmptyDirectoryInThePlaceOfTheFileIsRefusedAndRemoved) {
  fs::create_directories(PathOf("cfg"));
  Memory memory = Make("cfg", 100);
  EXPECT_EQ(memory->createshm(), 10001);
  memory = nullptr;
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
}

TEST_F(CZARNShareMemoryTest, AnotherProcessSeesTheSameBytesAndItsLockHolds) {
  Memory memory = Make("cfg", 100);
  ASSERT_EQ(memory->createshm(), 0);
  std::strcpy(Bytes(memory), "hello");
  ForkedChild child([&] {
    auto* attached = new CZARNShareMemory("cfg", 100);  // never let go: the file is ours
    if (attached->createshm() != 0 || attached->MemLock() != 0) return false;
    auto* bytes = static_cast<char*>(attached->GetAddress());
    const bool same = std::string_view(bytes) == "hello";
    std::strcpy(bytes, "world");
    return same && attached->MemUnlock() == 0;
  });
  EXPECT_TRUE(child.Succeeded());
  ASSERT_EQ(memory->MemLock(), AW_OK);
  EXPECT_STREQ(Bytes(memory), "world");
  EXPECT_FALSE(memory->WasAbandoned());
  EXPECT_EQ(memory->MemLock(), AW_ERROR_FAILURE);
  EXPECT_EQ(memory->MemUnlock(), AW_OK);
  EXPECT_EQ(memory->MemUnlock(), AW_ERROR_FAILURE);
}

TEST_F(CZARNShareMemoryTest, DeathOfTheHolderIsToldToTheNextOne) {
  const Memory memory = Make("cfg", 100);
  ASSERT_EQ(memory->createshm(), 0);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ForkedChild child([&] {
    auto* attached = new CZARNShareMemory("cfg", 100);
    if (attached->createshm() != 0 || attached->MemLock() != 0) return false;
    if (::write(ends[1], "x", 1) != 1) return false;
    for (;;) ::pause();
  });
  char byte = 0;
  ASSERT_EQ(::read(ends[0], &byte, 1), 1);
  ::close(ends[0]);
  ::close(ends[1]);
  child.Kill();
  ASSERT_EQ(memory->MemLock(), AW_OK);
  EXPECT_TRUE(memory->WasAbandoned());
  EXPECT_EQ(memory->MemUnlock(), AW_OK);
  ASSERT_EQ(memory->MemLock(), AW_OK);
  EXPECT_FALSE(memory->WasAbandoned());
  EXPECT_EQ(memory->MemUnlock(), AW_OK);
}

TEST_F(CZARNShareMemoryTest, NoRoomAndNoPermissionAreCodes) {
  ASSERT_EQ(Make("other", 100)->createshm(), 0);  // the directories are there now
  EXPECT_TRUE(ForkedChild([] {
                return test::LimitFileSize(1U << 20) && Make("cfg", 2U << 20)->createshm() == 10001;
              }).Succeeded());
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
  EXPECT_TRUE(ForkedChild([this] {
                return test::MakeReadOnly(fs::path(PathOf("cfg")).parent_path()) &&
                       Make("cfg", 100)->createshm() != 0;
              }).Succeeded());
  fs::permissions(fs::path(PathOf("cfg")).parent_path(), fs::perms{0700});
}

// --- CreateMemory ---

TEST_F(CZARNShareMemoryTest, CreateMemoryHandsOutASegmentWithOneReference) {
  Memory memory;
  ASSERT_EQ(CreateMemory(memory, "cfg", 4096), AW_OK);
  EXPECT_EQ(memory->GetSize(), 4096U);
  EXPECT_EQ(memory->AddReference(), 2U);
  EXPECT_EQ(memory->ReleaseReference(), 1U);
}

TEST_F(CZARNShareMemoryTest, CreateMemoryReleasesWhatItReplaces) {
  Memory memory;
  ASSERT_EQ(CreateMemory(memory, "a", 100), AW_OK);
  ASSERT_EQ(CreateMemory(memory, "b", 100), AW_OK);
  EXPECT_FALSE(fs::exists(PathOf("a")));
  EXPECT_TRUE(fs::exists(PathOf("b")));
}

TEST_F(CZARNShareMemoryTest, CreateMemoryThatFailsLeavesWhatIsThere) {
  constexpr std::size_t kTooLarge = std::size_t{std::numeric_limits<unsigned int>::max()} + 1;
  Memory memory;
  Memory other;
  ASSERT_EQ(CreateMemory(memory, "a", 100), AW_OK);
  CZARNShareMemory* before = memory.Get();
  EXPECT_EQ(CreateMemory(other, "a", 0), AW_ERROR_FAILURE);
  EXPECT_FALSE(other);
  EXPECT_EQ(CreateMemory(memory, "b", 0), AW_ERROR_FAILURE);
  EXPECT_EQ(CreateMemory(memory, "", 100), AW_ERROR_FAILURE);
  EXPECT_EQ(CreateMemory(memory, "b", kTooLarge), AW_ERROR_FAILURE);
  EXPECT_EQ(CreateMemory(memory, "b", kTooLarge + 100), AW_ERROR_FAILURE);
  EXPECT_EQ(CreateMemory(memory, CAWString(300, 'n'), 100), AW_ERROR_FAILURE);
  {
    const test::ScopedEnv unset("ZARN_ROOT", std::nullopt);
    EXPECT_EQ(CreateMemory(memory, "b", 100), AW_ERROR_FAILURE);
  }
  EXPECT_EQ(memory.Get(), before);
  EXPECT_TRUE(fs::exists(PathOf("a")));
  EXPECT_FALSE(fs::exists(PathOf("b")));
}

TEST_F(CZARNShareMemoryTest, CreateMemoryOfNoSizeMakesNoDirectory) {
  Memory memory;
  EXPECT_EQ(CreateMemory(memory, "a", 0), AW_ERROR_FAILURE);
  EXPECT_TRUE(fs::is_empty(root_.GetPath() + "/system"));
}

TEST_F(CZARNShareMemoryTest, CreateMemoryOfASizeThatIsNotThereRemovesTheSmallerOne) {
  Memory small;
  Memory large;
  ASSERT_EQ(CreateMemory(small, "cfg", 100), AW_OK);
  EXPECT_EQ(CreateMemory(large, "cfg", 200), AW_ERROR_FAILURE);
  EXPECT_FALSE(large);
  EXPECT_FALSE(fs::exists(PathOf("cfg")));
  EXPECT_EQ(small->MemLock(), AW_OK);
  EXPECT_EQ(small->MemUnlock(), AW_OK);
}

}  // namespace
}  // namespace zarn::utils
