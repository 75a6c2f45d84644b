// CZARNShareMemoryCalls_test.cpp - another process makes a segment's file anew while a handle ends:
// unlink is this program's own, and says when it has returned.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <utility>

#include "TempRoot.h"
#include "TraceLines.h"
#include "keelbase/CAWAutoPtr.h"
#include "zarn/utils/CZARNShareMemory.h"

namespace {

thread_local std::function<void()> afterUnlink;  // the next one

}  // namespace

extern "C" int unlink(const char* path) noexcept {
  const long result = ::syscall(SYS_unlinkat, AT_FDCWD, path, 0);
  const int error = errno;
  if (const auto then = std::exchange(afterUnlink, nullptr)) then();
  errno = error;
  return static_cast<int>(result);
}

namespace zarn::utils {
namespace {

namespace fs = std::filesystem;

class CZARNShareMemoryCallsTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(memory_->createshm(), 0); }

  void LetGoWhileAnotherMakesTheFile() {
    afterUnlink = [this] { std::ofstream(path_) << "of another"; };
    memory_ = nullptr;
  }

  test::TraceLines trace_;
  test::TempRoot root_;
  const fs::path path_ = root_.GetPath() + "/system/zarn/shm/zarnshmm/zarn_shm_cfg";
  keelbase::CAWAutoPtr<CZARNShareMemory> memory_ = new CZARNShareMemory("cfg", 100);
};

TEST_F(CZARNShareMemoryCallsTest, FileMadeAnewOnceOursIsRemovedStays) {
  LetGoWhileAnotherMakesTheFile();
  EXPECT_TRUE(fs::exists(path_));
}

TEST_F(CZARNShareMemoryCallsTest, FileMadeAnewAfterAnotherHasRemovedOursStays) {
  fs::remove(path_);
  LetGoWhileAnotherMakesTheFile();
  EXPECT_TRUE(fs::exists(path_));
}

}  // namespace
}  // namespace zarn::utils
