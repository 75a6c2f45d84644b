// LevelDBKeeper.cpp - see LevelDBKeeper.h.
#include "LevelDBKeeper.h"

#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

namespace zarn::utils {

namespace {

// Every write fails, and without a database to read every read too.
class StoppedDatabase final : public leveldb::DB {
 public:
  using Slice = leveldb::Slice;
  using Status = leveldb::Status;

  explicit StoppedDatabase(leveldb::DB* readable) : readable_(readable) {}

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
  Status Get(const leveldb::ReadOptions& options, const Slice& key, std::string* value) override {
    return readable_ != nullptr ? readable_->Get(options, key, value) : Error();
  }
  leveldb::Iterator* NewIterator(const leveldb::ReadOptions& options) override {
    return readable_ != nullptr ? readable_->NewIterator(options)
                                : leveldb::NewErrorIterator(Error());
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

  leveldb::DB* const readable_;
};

struct Database {
  leveldb::DB* open;
  leveldb::DB* readOnly;
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

}  // namespace

leveldb::DB* OpenAndKeep(const leveldb::Options& options, const std::string& path) {
  Kept& kept = GetKept();
  const std::lock_guard<std::mutex> lock(kept.mutex);
  kept.databases.reserve(kept.databases.size() + 1);
  leveldb::DB* database = nullptr;
  if (!leveldb::DB::Open(options, path, &database).ok()) return nullptr;
  kept.databases.push_back({database, nullptr});
  kept.databases.back().readOnly = std::make_unique<StoppedDatabase>(database).release();
  return database;
}

leveldb::DB* GetReadOnly(leveldb::DB* database) {
  Kept& kept = GetKept();
  const std::lock_guard<std::mutex> lock(kept.mutex);
  const auto found = std::find_if(kept.databases.begin(), kept.databases.end(),
                                  [&](const Database& one) { return one.open == database; });
  return found != kept.databases.end() ? found->readOnly : database;
}

leveldb::DB* GetFailedDatabase() {
  alignas(StoppedDatabase) static unsigned char place[sizeof(StoppedDatabase)];  // needs no memory
  static StoppedDatabase* const failed = new (place) StoppedDatabase(nullptr);
  return failed;
}

}  // namespace zarn::utils
