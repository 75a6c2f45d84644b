// LevelDBKeeper.cpp - see LevelDBKeeper.h.
#include "LevelDBKeeper.h"

#include <fcntl.h>
#include <leveldb/env.h>
#include <leveldb/iterator.h>
#include <leveldb/slice.h>
#include <leveldb/status.h>
#include <leveldb/write_batch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace zarn::utils {

namespace {

using leveldb::Slice;
using leveldb::Status;

// A write that failed may have left half a record in the file. LevelDB would write more, but never
// find again what stands behind that, so the file takes nothing any more. One thread at a time.
class FileUntilFailure final : public leveldb::WritableFile {
 public:
  explicit FileUntilFailure(std::unique_ptr<leveldb::WritableFile> file) : file_(std::move(file)) {}

  Status Append(const Slice& data) override {
    return Do([&] { return file_->Append(data); });
  }
  Status Flush() override {
    return Do([&] { return file_->Flush(); });
  }
  Status Sync() override {
    return Do([&] { return file_->Sync(); });
  }
  Status Close() override { return file_->Close(); }

 private:
  template <class Operation>
  Status Do(Operation operation) {
    if (status_.ok()) status_ = operation();
    return status_;
  }

  const std::unique_ptr<leveldb::WritableFile> file_;
  Status status_;
};

std::string DirectoryOf(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return path.substr(0, std::max<std::size_t>(slash, 1));
}

// The name of a file is on disk only when its directory is.
Status SyncDirectoryOf(const std::string& path) {
  const std::string name = DirectoryOf(path);
  const int directory = ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synced = directory >= 0 && ::fsync(directory) == 0;
  if (directory >= 0) ::close(directory);
  return synced ? Status::OK() : Status::IOError(name, "cannot be synced");
}

class Environment final : public leveldb::EnvWrapper {
 public:
  explicit Environment(bool sync) : EnvWrapper(leveldb::Env::Default()), sync_(sync) {}

  Status NewWritableFile(const std::string& name, leveldb::WritableFile** result) override {
    Status status = EnvWrapper::NewWritableFile(name, result);
    if (!status.ok()) return status;
    std::unique_ptr<leveldb::WritableFile> file(std::exchange(*result, nullptr));
    if (name.ends_with(".log")) status = Sync(name);
    if (!status.ok()) return status;
    *result = new (std::nothrow) FileUntilFailure(std::move(file));
    return *result != nullptr ? status : Status::IOError(name, "no memory");
  }

  Status CreateDir(const std::string& name) override {
    const Status status = EnvWrapper::CreateDir(name);
    return status.ok() ? Sync(name) : status;
  }

  Status RenameFile(const std::string& from, const std::string& to) override {
    const Status status = EnvWrapper::RenameFile(from, to);
    return status.ok() ? Sync(to) : status;
  }

 private:
  Status Sync(const std::string& name) const { return sync_ ? SyncDirectoryOf(name) : Status(); }

  const bool sync_;
};

class FailedDatabase final : public leveldb::DB {
 public:
  Status Put(const leveldb::WriteOptions& /*options*/, const Slice& /*key*/,
             const Slice& /*value*/) override {
    return Error();
  }
  Status Delete(const leveldb::WriteOptions& /*options*/, const Slice& /*key*/) override {
    return Error();
  }
  Status Write(const leveldb::WriteOptions& /*options*/, leveldb::WriteBatch* /*batch*/) override {
    return Error();
  }
  Status Get(const leveldb::ReadOptions& /*options*/, const Slice& /*key*/,
             std::string* /*value*/) override {
    return Error();
  }
  leveldb::Iterator* NewIterator(const leveldb::ReadOptions& /*options*/) override {
    return leveldb::NewErrorIterator(Error());
  }
  // Nobody calls these.
  const leveldb::Snapshot* GetSnapshot() override { return nullptr; }
  void ReleaseSnapshot(const leveldb::Snapshot* /*snapshot*/) override {}
  bool GetProperty(const Slice& /*property*/, std::string* /*value*/) override { return false; }
  void GetApproximateSizes(const leveldb::Range* /*ranges*/, int count,
                           std::uint64_t* sizes) override {
    std::fill_n(sizes, count, 0);
  }
  void CompactRange(const Slice* /*begin*/, const Slice* /*end*/) override {}

 private:
  static Status Error() { return Status::IOError("failed before"); }
};

using FileId = std::pair<dev_t, ino_t>;

struct Database {
  leveldb::DB* database;
  std::optional<FileId> lock;  // the file that LevelDB keeps locked, and so open
};

// Stays until the process is gone: threads of LevelDB outlive static objects.
struct Kept {
  Environment plain{false};
  Environment synced{true};
  std::mutex mutex;
  std::vector<Database> databases;
};

Kept& GetKept() {
  static Kept& kept = *new Kept;
  return kept;
}

std::optional<FileId> LockOf(const std::string& path) {
  struct stat status {};
  if (::stat((path + "/LOCK").c_str(), &status) != 0) return std::nullopt;
  return FileId(status.st_dev, status.st_ino);
}

bool IsOpen(const std::vector<Database>& databases, const std::string& path) {
  const std::optional<FileId> lock = LockOf(path);
  return lock && std::any_of(databases.begin(), databases.end(),
                             [&](const Database& each) { return each.lock == lock; });
}

}  // namespace

// LevelDB knows its databases by name only, so it would open one twice. And when it refuses one it
// closes the lock's file, with which the process loses the lock: it is not to come so far.
leveldb::DB* OpenAndKeep(leveldb::Options options, const std::string& path, bool sync) {
  Kept& kept = GetKept();
  const std::lock_guard<std::mutex> guard(kept.mutex);
  if (IsOpen(kept.databases, path)) return nullptr;
  kept.databases.reserve(kept.databases.size() + 1);
  options.env = sync ? &kept.synced : &kept.plain;
  leveldb::DB* database = nullptr;
  if (!leveldb::DB::Open(options, path, &database).ok()) return nullptr;
  kept.databases.push_back({database, LockOf(path)});
  return database;
}

leveldb::DB* GetFailedDatabase() {
  alignas(FailedDatabase) static unsigned char place[sizeof(FailedDatabase)];  // needs no memory
  static FailedDatabase* const failed = new (place) FailedDatabase;
  return failed;
}

}  // namespace zarn::utils
