// LevelDBKeeper.cpp - see LevelDBKeeper.h.
#include "LevelDBKeeper.h"

#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <new>
#include <vector>

namespace zarn::utils {

namespace {

class FailedDatabase final : public leveldb::DB {
 public:
  using Slice = leveldb::Slice;
  using Status = leveldb::Status;

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
  const leveldb::Snapshot* GetSnapshot() override { return nullptr; }
  void ReleaseSnapshot(const leveldb::Snapshot* /*snapshot*/) override {}
  bool GetProperty(const Slice& /*property*/, std::string* /*value*/) override { return false; }
  void GetApproximateSizes(const leveldb::Range* /*ranges*/, int count,
                           std::uint64_t* sizes) override {
    std::fill_n(sizes, count, 0);
  }
  void CompactRange(const Slice* /*begin*/, const Slice* /*end*/) override {}

 private:
  static Status Error() { return Status::IOError("memory has run out before"); }
};

// The two that follow stay until the process is gone: threads of LevelDB outlive static objects.
struct Kept {
  std::mutex mutex;
  std::vector<leveldb::DB*> databases;
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
  kept.databases.push_back(database);
  return database;
}

leveldb::DB* GetFailedDatabase() {
  alignas(FailedDatabase) static unsigned char place[sizeof(FailedDatabase)];  // needs no memory
  static FailedDatabase* const failed = new (place) FailedDatabase;
  return failed;
}

}  // namespace zarn::utils
