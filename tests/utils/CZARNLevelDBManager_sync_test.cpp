// CZARNLevelDBManager_sync_test.cpp - which operations wait for the disk: fsync and fdatasync are
// this program's own, and counted.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "TempRoot.h"
#include "zarn/utils/CZARNLevelDBManager.h"

namespace {

std::atomic<int> syncs{0};

}  // namespace

extern "C" {

int fsync(int file) {
  ++syncs;
  return static_cast<int>(::syscall(SYS_fsync, file));
}
int fdatasync(int file) {
  ++syncs;
  return static_cast<int>(::syscall(SYS_fdatasync, file));
}

}  // extern "C"

namespace zarn::utils {
namespace {

class StoreSync : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { ASSERT_EQ(store_.Open((dir_.GetPath() + "/store").c_str()), 0); }

  // How often the operation, which must succeed, has waited for the disk.
  template <class Operation>
  int SyncsOf(Operation operation) {
    const int before = syncs;
    EXPECT_EQ(operation(), 0);
    return syncs - before;
  }
  int SyncsOfInsert() {
    return SyncsOf(
        [&] { return store_.DBInsert(key_.data(), key_.size(), value_.data(), value_.size()); });
  }
  int SyncsOfUpdate() {
    return SyncsOf(
        [&] { return store_.DBUpdate(key_.data(), key_.size(), value_.data(), value_.size()); });
  }
  int SyncsOfRemoval() {
    return SyncsOf([&] { return store_.DBRemove(key_.data(), key_.size()); });
  }

  const int asTold_ = GetParam() ? 1 : 0;
  const test::TempDir dir_;
  std::string key_ = "k";
  std::string value_ = "v";
  CZARNLevelDBManager store_{GetParam(), 0, true, true};
};

TEST_P(StoreSync, InsertsWaitForTheDiskAsTold) {
  EXPECT_EQ(SyncsOfInsert(), asTold_);
  EXPECT_EQ(SyncsOfInsert(), asTold_) << "a replacement";
}

TEST_P(StoreSync, RemovalsWaitForTheDiskAsTold) {
  EXPECT_EQ(SyncsOfRemoval(), asTold_) << "of what is not there";
  SyncsOfInsert();
  EXPECT_EQ(SyncsOfRemoval(), asTold_);
}

TEST_P(StoreSync, UpdatesNeverWaitForTheDisk) {
  EXPECT_EQ(SyncsOfUpdate(), 0);
  EXPECT_EQ(SyncsOfUpdate(), 0) << "of what is there";
}

INSTANTIATE_TEST_SUITE_P(Flag, StoreSync, testing::Bool(),
                         [](const auto& flag) { return flag.param ? "Sync" : "NoSync"; });

}  // namespace
}  // namespace zarn::utils
