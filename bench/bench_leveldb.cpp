// bench_leveldb.cpp - one operation of a LevelDB store of 100000 entries: through
// CZARNLevelDBManager, and by LevelDB called directly.
//
//   bench_leveldb zarn|direct lookup|insert|update|remove|dump [--seconds S]
//
// Prints one JSON object: "ns" for one operation; of a dump for one entry. Writes are not synced.
// The store lies in memory, where there is such a file system.
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common/Bench.h"
#include "common/StoreBench.h"
#include "zarn/utils/CZARNLevelDBManager.h"

namespace {

using namespace bench;

class Zarn {
 public:
  explicit Zarn(const std::string& path) {
    if (manager_.Open(path.c_str()) != 0) Fail("the store cannot be opened");
  }
  bool Lookup(std::string& key) {
    std::string value;
    return manager_.DBLookup(key.data(), key.size(), &value) == 0;
  }
  bool Insert(std::string& key, std::string& value) {
    return manager_.DBInsert(key.data(), key.size(), value.data(), value.size()) == 0;
  }
  bool Update(std::string& key, std::string& value) {
    return manager_.DBUpdate(key.data(), key.size(), value.data(), value.size()) == 0;
  }
  bool Remove(std::string& key) { return manager_.DBRemove(key.data(), key.size()) == 0; }
  template <class Visit>
  void Dump(Visit visit) {
    manager_.DBDump(visit);
  }

 private:
  zarn::utils::CZARNLevelDBManager manager_{false, 0, true, true};
};

class Direct {
 public:
  explicit Direct(const std::string& path) {
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* database = nullptr;
    if (!leveldb::DB::Open(options, path, &database).ok()) Fail("leveldb::DB::Open");
    database_.reset(database);
  }
  bool Lookup(std::string& key) {
    std::string value;
    return database_->Get(leveldb::ReadOptions(), key, &value).ok();
  }
  bool Insert(std::string& key, std::string& value) {
    return database_->Put(leveldb::WriteOptions(), key, value).ok();
  }
  bool Update(std::string& key, std::string& value) {
    std::string before;
    if (!database_->Get(leveldb::ReadOptions(), key, &before).ok()) return Insert(key, value);
    leveldb::WriteBatch batch;
    batch.Delete(key);
    batch.Put(key, value);
    return database_->Write(leveldb::WriteOptions(), &batch).ok();
  }
  bool Remove(std::string& key) { return database_->Delete(leveldb::WriteOptions(), key).ok(); }
  template <class Visit>
  void Dump(Visit visit) {
    const std::unique_ptr<leveldb::Iterator> at(database_->NewIterator(leveldb::ReadOptions()));
    for (at->SeekToFirst(); at->Valid(); at->Next()) {
      const leveldb::Slice key = at->key();
      const leveldb::Slice value = at->value();
      visit(key.data(), key.size(), value.data(), value.size());
    }
  }

 private:
  std::unique_ptr<leveldb::DB> database_;
};

void Expect(bool done) {
  if (!done) Fail("the store has refused");
}

template <class Store>
double MeasureDump(const StoreOptions& options, Store& store) {
  return MeasureEach(options,
                     [&](std::uint64_t) {
                       std::uint64_t bytes = 0;
                       store.Dump([&](const char*, unsigned long keyLen, const char*,
                                      unsigned long valueLen) { bytes += keyLen + valueLen; });
                       Expect(bytes != 0);
                     }) /
         static_cast<double>(kEntries);
}

template <class Store>
double Measure(const StoreOptions& options, const std::string& path) {
  Store store(path);
  std::string key;
  std::string value;
  const auto with = [&](std::uint64_t entry, std::uint64_t number) {
    key = KeyOf(entry);
    value = ValueOf(number);
  };
  for (std::uint64_t i = 0; i < kEntries; ++i) {
    with(i, i);
    Expect(store.Insert(key, value));
  }
  const auto each = [&](auto operation) {
    return MeasureEach(options, [&](std::uint64_t i) {
      with(Scatter(i), i);
      Expect(operation());
    });
  };
  if (options.operation == "lookup") return each([&] { return store.Lookup(key); });
  if (options.operation == "insert") return each([&] { return store.Insert(key, value); });
  if (options.operation == "update") return each([&] { return store.Update(key, value); });
  if (options.operation == "remove") return each([&] { return store.Remove(key); });
  if (options.operation != "dump") Fail("no operation " + options.operation);
  return MeasureDump(options, store);
}

}  // namespace

int main(int argc, char** argv) {
  return MainOfStore(argc, argv, {"zarn", Measure<Zarn>}, {"direct", Measure<Direct>});
}
