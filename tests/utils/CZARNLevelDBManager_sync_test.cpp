// CZARNLevelDBManager_sync_test.cpp - what waits for the disk: fsync and fdatasync are this
// program's own, and counted. A name counts as on disk once its directory was synced.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <system_error>

#include "TempRoot.h"
#include "zarn/utils/CZARNLevelDBManager.h"

namespace {

namespace fs = std::filesystem;

std::atomic<int> syncs{0};

std::string ContentOf(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The names that are on disk, with what CURRENT says.
class Names {
 public:
  void Watch(const fs::path& root) {
    const std::lock_guard<std::mutex> lock(mutex_);
    root_ = root;
    onDisk_.clear();
    early_ = 0;
    watching_ = true;
  }
  void Unwatch() { watching_ = false; }

  // Allocates nothing for other tests, which count allocations.
  void Synced(int file) {
    if (!watching_) return;
    std::error_code error;
    const fs::path path = fs::read_symlink("/proc/self/fd/" + std::to_string(file), error);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (path.string().rfind(root_.string(), 0) != 0) return;
    if (path.extension() == ".log" && onDisk_.count(path) == 0) ++early_;
    if (!fs::is_directory(path, error)) return;
    for (const auto& entry : fs::directory_iterator(path, error)) {
      const bool current = entry.path().filename() == "CURRENT";
      onDisk_[entry.path()] = current ? ContentOf(entry.path()) : std::string();
    }
  }

  bool Has(const fs::path& path) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return onDisk_.count(path) != 0;
  }
  std::string ContentOnDisk(const fs::path& path) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto at = onDisk_.find(path);
    return at != onDisk_.end() ? at->second : std::string();
  }
  // How many syncs of a log were worth nothing, since its name could still be lost.
  int Early() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return early_;
  }

 private:
  std::atomic<bool> watching_{false};
  mutable std::mutex mutex_;
  fs::path root_;
  std::map<fs::path, std::string> onDisk_;
  int early_ = 0;
};

Names names;

}  // namespace

extern "C" {

int fsync(int file) {
  ++syncs;
  names.Synced(file);
  return static_cast<int>(::syscall(SYS_fsync, file));
}
int fdatasync(int file) {
  ++syncs;
  names.Synced(file);
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

class StoreSyncOfNames : public testing::Test {
 protected:
  StoreSyncOfNames() { names.Watch(dir_.GetPath()); }
  ~StoreSyncOfNames() override { names.Unwatch(); }

  const test::TempDir dir_;
  const std::string path_ = dir_.GetPath() + "/store";
  CZARNLevelDBManager store_{true, 0, true, true};
};

TEST_F(StoreSyncOfNames, ANewDatabaseIsOnDiskWhenItIsOpen) {
  ASSERT_EQ(store_.Open((path_ + "/").c_str()), 0);
  EXPECT_TRUE(names.Has(path_));
  EXPECT_EQ(names.ContentOnDisk(path_ + "/CURRENT"), ContentOf(path_ + "/CURRENT"));
}

TEST_F(StoreSyncOfNames, NoInsertIsAnsweredWhileTheNameOfItsLogMayBeLost) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  std::string value(1'000'000, 'v');
  for (std::string key : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"}) {  // several logs
    ASSERT_EQ(store_.DBInsert(key.data(), key.size(), value.data(), value.size()), 0);
  }
  EXPECT_EQ(names.Early(), 0);
}

INSTANTIATE_TEST_SUITE_P(Flag, StoreSync, testing::Bool(),
                         [](const auto& flag) { return flag.param ? "Sync" : "NoSync"; });

}  // namespace
}  // namespace zarn::utils
