// CZARNLevelDBManager_sync_test.cpp - what waits for the disk: fsync, fdatasync and syncfs are this
// program's own, and counted, and may fail. A name counts as on disk once its directory was synced.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include "ForkedChild.h"
#include "StoreTrouble.h"
#include "TempRoot.h"
#include "zarn/utils/CZARNLevelDBManager.h"

namespace {

namespace fs = std::filesystem;

std::atomic<int> syncs{0};
std::atomic<int> fileSystemSyncs{0};
std::atomic<int> directorySyncsToPass{-1};  // before the one that fails; below 0: none will

bool Fails(int file) {
  struct stat status {};
  return directorySyncsToPass >= 0 && ::fstat(file, &status) == 0 && S_ISDIR(status.st_mode) &&
         directorySyncsToPass-- == 0;
}

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
  if (Fails(file)) {
    errno = EIO;
    return -1;
  }
  names.Synced(file);
  return static_cast<int>(::syscall(SYS_fsync, file));
}
int fdatasync(int file) {
  ++syncs;
  names.Synced(file);
  return static_cast<int>(::syscall(SYS_fdatasync, file));
}

int syncfs(int /*file*/) noexcept {  // would wait for all that others write
  ++fileSystemSyncs;
  return 0;
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

// Whoever made it may have been killed before its name was on disk.
TEST_F(StoreSyncOfNames, ADirectoryThatWasThereIsOnDiskWhenItsDatabaseIsOpen) {
  fs::create_directory(path_);
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_TRUE(names.Has(path_));
}

TEST_F(StoreSyncOfNames, ADirectoryBehindALinkIsOnDiskWhenItsDatabaseIsOpen) {
  const fs::path link = dir_.GetPath() + "/links/store";
  fs::create_directory(link.parent_path());
  fs::create_directory(path_);
  fs::create_directory_symlink(path_, link);
  ASSERT_EQ(store_.Open(link.c_str()), 0);
  EXPECT_TRUE(names.Has(path_));
}

TEST_F(StoreSyncOfNames, BelowADirectoryThatMayNotBeReadTheFileSystemIsSynced) {
  fs::permissions(dir_.GetPath(), fs::perms{0333});
  EXPECT_TRUE(test::ForkedChild([&] {
                return test::LeaveRoot() && store_.Open(path_.c_str()) == 0 && fileSystemSyncs == 1;
              }).Succeeded());
  fs::permissions(dir_.GetPath(), fs::perms{0700});
}

TEST_F(StoreSyncOfNames, NoInsertIsAnsweredWhileTheNameOfItsLogMayBeLost) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  std::string value(1'000'000, 'v');
  for (std::string key : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"}) {  // several logs
    ASSERT_EQ(store_.DBInsert(key.data(), key.size(), value.data(), value.size()), 0);
  }
  EXPECT_EQ(names.Early(), 0);
}

class StoreSyncFailures : public testing::Test {
 protected:
  ~StoreSyncFailures() override { directorySyncsToPass = -1; }

  static int Insert(CZARNLevelDBManager& store, std::string key, std::string value) {
    return store.DBInsert(key.data(), key.size(), value.data(), value.size());
  }
  static bool Has(CZARNLevelDBManager& store, std::string key) {
    std::string value;
    return store.DBLookup(key.data(), key.size(), &value) == 0;
  }
  bool Elsewhere(const std::string& path,
                 const std::function<bool(CZARNLevelDBManager&)>& work) const {
    return test::ForkedChild([&] {
             CZARNLevelDBManager store(true, 0, true, true);
             return store.Open(path.c_str()) == 0 && work(store);
           })
        .Succeeded();
  }
  // What Open answers, when it has come to the sync that fails.
  std::optional<int> OpenFailing(const std::string& path, int toPass) {
    directorySyncsToPass = toPass;
    const int result = store_.Open(path.c_str());
    return directorySyncsToPass.exchange(-1) < 0 ? std::optional(result) : std::nullopt;
  }

  const test::TempDir dir_;
  const std::string path_ = dir_.GetPath() + "/store";
  CZARNLevelDBManager store_{true, 0, true, true};
};

TEST_F(StoreSyncFailures, AnOpenThatCannotSyncADirectoryFailsAndLosesNothing) {
  for (int toPass = 0;; ++toPass) {
    const std::string path = path_ + std::to_string(toPass);
    const auto insert = [](CZARNLevelDBManager& store) { return Insert(store, "k", "v") == 0; };
    ASSERT_TRUE(Elsewhere(path, insert));
    const std::optional<int> result = OpenFailing(path, toPass);
    if (!result) {
      EXPECT_GT(toPass, 1) << "a log and CURRENT";
      break;
    }
    EXPECT_EQ(*result, -1) << toPass;
    EXPECT_EQ(store_.Open(path.c_str()), 0) << toPass;
    EXPECT_TRUE(Has(store_, "k")) << toPass;
  }
}

TEST_F(StoreSyncFailures, ADatabaseThatCouldNotBeMadeForGoodIsNotOpenAndCanBeMadeAgain) {
  for (int toPass = 0;; ++toPass) {
    const std::string path = path_ + std::to_string(toPass);
    const std::optional<int> result = OpenFailing(path, toPass);
    if (!result) break;
    EXPECT_EQ(*result, -1) << toPass;
    names.Watch(dir_.GetPath());
    EXPECT_EQ(store_.Open(path.c_str()), 0) << toPass;
    names.Unwatch();
    EXPECT_TRUE(toPass > 0 || names.Has(path));
  }
}

TEST_F(StoreSyncFailures, AWriteWhoseLogMayBeLostIsTheLastOne) {
  const std::string value(100'000, 'v');
  int taken = 0;
  EXPECT_TRUE(Elsewhere(path_, [&](CZARNLevelDBManager& store) {
    directorySyncsToPass = 0;
    while (taken < 100 && Insert(store, std::to_string(taken), value) == 0) ++taken;
    return taken < 100 && Insert(store, "late", value) == -1 && Has(store, "0");
  }));
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_TRUE(Has(store_, "0"));
  EXPECT_FALSE(Has(store_, "late"));
}

INSTANTIATE_TEST_SUITE_P(Flag, StoreSync, testing::Bool(),
                         [](const auto& flag) { return flag.param ? "Sync" : "NoSync"; });

}  // namespace
}  // namespace zarn::utils
