// LevelDBKeeper.cpp - see LevelDBKeeper.h.
#include "LevelDBKeeper.h"

#include <leveldb/env.h>
#include <leveldb/iterator.h>
#include <leveldb/slice.h>
#include <leveldb/status.h>
#include <leveldb/write_batch.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
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

class Environment final : public leveldb::EnvWrapper {
 public:
  Environment() : EnvWrapper(leveldb::Env::Default()) {}

  Status NewWritableFile(const std::string& name, leveldb::WritableFile** result) override {
    Status status = EnvWrapper::NewWritableFile(name, result);
    if (!status.ok()) return status;
    std::unique_ptr<leveldb::WritableFile> file(*result);
    *result = new (std::nothrow) FileUntilFailure(std::move(file));
    return *result != nullptr ? status : Status::IOError(name, "no memory");
  }
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

// Stays until the process is gone: threads of LevelDB outlive static objects.
struct Kept {
  Environment environment;
  std::mutex mutex;
  std::vector<leveldb::DB*> databases;
};

Kept& GetKept() {
  static Kept& kept = *new Kept;
  return kept;
}

}  // namespace

leveldb::DB* OpenAndKeep(leveldb::Options options, const std::string& path) {
  Kept& kept = GetKept();
  const std::lock_guard<std::mutex> lock(kept.mutex);
  kept.databases.reserve(kept.databases.size() + 1);
  options.env = &kept.environment;
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
