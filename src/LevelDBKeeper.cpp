// LevelDBKeeper.cpp - see LevelDBKeeper.h.
#include "LevelDBKeeper.h"

#include <leveldb/iterator.h>
#include <leveldb/slice.h>
#include <leveldb/status.h>
#include <leveldb/write_batch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "LevelDBEnvironment.h"

namespace zarn::utils {

namespace {

using leveldb::Slice;
using leveldb::Status;

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

// Of a file in the directory.
std::optional<FileId> IdOf(int directory, const char* name) {
  struct stat status {};
  if (::fstatat(directory, name, &status, 0) != 0) return std::nullopt;
  return FileId(status.st_dev, status.st_ino);
}

// What tells one database from another. The lock is what LevelDB keeps open: its file may be linked
// into another directory, and may be removed.
struct Place {
  explicit Place(int descriptor)
      : directory(IdOf(descriptor, ".")), lock(IdOf(descriptor, "LOCK")) {}

  bool Shares(const Place& other) const {
    return (directory && directory == other.directory) || (lock && lock == other.lock);
  }

  std::optional<FileId> directory;
  std::optional<FileId> lock;
};

struct Database {
  std::unique_ptr<LevelDBEnvironment> environment;
  leveldb::DB* database;
  Place place;
};

// Stays until the process is gone: threads of LevelDB outlive static objects.
struct Kept {
  std::mutex mutex;
  std::vector<Database> databases;
};

Kept& GetKept() {
  static Kept& kept = *new Kept;
  return kept;
}

bool IsOpen(const std::vector<Database>& databases, const Place& place) {
  return std::any_of(databases.begin(), databases.end(),
                     [&](const Database& each) { return each.place.Shares(place); });
}

}  // namespace

// LevelDB knows its databases by name only, so it would open one twice. And when it refuses one it
// closes the lock's file, with which the process loses the lock: it is not to come so far.
leveldb::DB* OpenAndKeep(leveldb::Options options, const std::string& path, bool sync) {
  if (!StartLevelDBThread()) return nullptr;
  Kept& kept = GetKept();
  const std::lock_guard<std::mutex> guard(kept.mutex);
  kept.databases.reserve(kept.databases.size() + 1);
  auto environment = std::make_unique<LevelDBEnvironment>(path, sync);
  const int directory = environment->GetDirectory();
  if (directory < 0 || IsOpen(kept.databases, Place(directory))) return nullptr;
  options.env = environment.get();
  leveldb::DB* database = nullptr;
  if (!leveldb::DB::Open(options, path, &database).ok()) return nullptr;
  kept.databases.push_back({std::move(environment), database, Place(directory)});
  return database;
}

leveldb::DB* GetFailedDatabase() {
  alignas(FailedDatabase) static unsigned char place[sizeof(FailedDatabase)];  // needs no memory
  static FailedDatabase* const failed = new (place) FailedDatabase;
  return failed;
}

}  // namespace zarn::utils
