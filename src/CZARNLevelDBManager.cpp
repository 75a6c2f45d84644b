// CZARNLevelDBManager.cpp - see CZARNLevelDBManager.h.
#include "zarn/utils/CZARNLevelDBManager.h"

#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/options.h>
#include <leveldb/slice.h>
#include <leveldb/write_batch.h>

#include <cstddef>
#include <memory>
#include <new>

#include "LevelDBKeeper.h"

namespace zarn::utils {

namespace {

constexpr int kDone = 0;
constexpr int kFailed = -1;
constexpr std::size_t kOpenMemory = 1 << 20;  // bytes; LevelDB takes less to set itself up

// Bytes of a key and of a value. LevelDB counts in 32 bits and would take what is longer for a
// shorter one with other entries behind it.
constexpr unsigned long kMaxBytes = 1UL << 30;

bool IsTooLong(unsigned long keyLen, unsigned long valueLen = 0) {
  return keyLen > kMaxBytes || valueLen > kMaxBytes;
}

leveldb::WriteOptions WriteOptionsWith(bool sync) {
  leveldb::WriteOptions options;
  options.sync = sync;
  return options;
}

leveldb::Status Replace(leveldb::DB& database, const leveldb::Slice& key,
                        const leveldb::Slice& value) {
  std::string before;
  leveldb::WriteBatch batch;
  if (database.Get(leveldb::ReadOptions(), key, &before).ok()) batch.Delete(key);
  batch.Put(key, value);
  return database.Write(leveldb::WriteOptions(), &batch);
}

}  // namespace

CZARNLevelDBManager::CZARNLevelDBManager(bool syncWrites, unsigned int reserved, bool compression,
                                         bool createIfMissing)
    : syncWrites_(syncWrites),
      reserved_(reserved),
      compression_(compression),
      createIfMissing_(createIfMissing) {}

CZARNLevelDBManager::~CZARNLevelDBManager() { Close(); }

// LevelDB is built without exceptions: one that passes through it leaves its locks locked, so the
// database is not touched again.
template <class Operation>
int CZARNLevelDBManager::Run(Operation operation) {
  try {
    return operation(*database_.load(std::memory_order_relaxed)).ok() ? kDone : kFailed;
  } catch (const std::bad_alloc&) {
    database_ = GetFailedDatabase();
    return kFailed;
  }
}

// What finds no memory while LevelDB sets itself up is never set up again and blocks each later
// Open. So it begins only when there is some.
int CZARNLevelDBManager::Open(const char* path) try {
  database_ = nullptr;
  if (path == nullptr || *path == '\0') return kFailed;
  ::operator delete(::operator new(kOpenMemory));
  leveldb::Options options;
  options.create_if_missing = createIfMissing_;
  if (!compression_) options.compression = leveldb::kNoCompression;
  database_ = OpenAndKeep(options, path, syncWrites_);
  return database_ != nullptr ? kDone : kFailed;
} catch (const std::bad_alloc&) {
  return kFailed;
}

int CZARNLevelDBManager::DBLookup(char* key, unsigned long keyLen, std::string* value) {
  if (database_ == nullptr || IsTooLong(keyLen)) return kFailed;
  return Run([&](leveldb::DB& database) {
    return database.Get(leveldb::ReadOptions(), leveldb::Slice(key, keyLen), value);
  });
}

int CZARNLevelDBManager::DBInsert(char* key, unsigned long keyLen, char* value,
                                  unsigned long valueLen) {
  if (IsTooLong(keyLen, valueLen)) return kFailed;
  return Run([&](leveldb::DB& database) {
    leveldb::WriteBatch batch;  // one of LevelDB's own would leak, see above
    batch.Put(leveldb::Slice(key, keyLen), leveldb::Slice(value, valueLen));
    return database.Write(WriteOptionsWith(syncWrites_), &batch);
  });
}

int CZARNLevelDBManager::DBUpdate(char* key, unsigned long keyLen, char* value,
                                  unsigned long valueLen) {
  if (database_ == nullptr || IsTooLong(keyLen, valueLen)) return kFailed;
  return Run([&](leveldb::DB& database) {
    return Replace(database, leveldb::Slice(key, keyLen), leveldb::Slice(value, valueLen));
  });
}

int CZARNLevelDBManager::DBRemove(char* key, unsigned long keyLen) {
  if (database_ == nullptr || IsTooLong(keyLen)) return kFailed;
  return Run([&](leveldb::DB& database) {
    leveldb::WriteBatch batch;
    batch.Delete(leveldb::Slice(key, keyLen));
    return database.Write(WriteOptionsWith(syncWrites_), &batch);
  });
}

// By value, as callers have been compiled to pass it.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void CZARNLevelDBManager::DBDump(Visitor visit) {
  if (database_ == nullptr) return;
  std::unique_ptr<leveldb::Iterator> at;
  int result = Run([&](leveldb::DB& database) {
    at.reset(database.NewIterator(leveldb::ReadOptions()));
    at->SeekToFirst();
    return leveldb::Status();
  });
  while (result == kDone && at->Valid()) {
    const leveldb::Slice key = at->key();
    const leveldb::Slice value = at->value();
    if (visit) visit(key.data(), key.size(), value.data(), value.size());
    result = Run([&](leveldb::DB& /*database*/) {
      at->Next();
      return leveldb::Status();
    });
  }
  // Its end would ask for locks that may never come back.
  if (result != kDone) static_cast<void>(at.release());
}

void CZARNLevelDBManager::Close() { database_ = nullptr; }

}  // namespace zarn::utils
