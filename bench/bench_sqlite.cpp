// bench_sqlite.cpp - one operation of the SQLite store at 100000 rows: through CZARNSqliteDB, and
// the same statements sent by hand through SQLite's own interface.
//
//   bench_sqlite zarn|hand get|insert|replace|batch [--seconds S]
//
// Prints one JSON object: "ns" for one operation. A batch is 1000 replacements between Begin and
// Commit, of which each counts. The store lies in memory, where there is such a file system: a disk
// would hide what is compared.
#include <sqlite3.h>

#include <cstdint>
#include <string>

#include "common/Bench.h"
#include "common/StoreBench.h"
#include "zarn/utils/CZARNSqliteDB.h"

namespace {

using namespace bench;

constexpr std::uint64_t kBatch = 1000;

class Zarn {
 public:
  explicit Zarn(const std::string& path) { db_.InitDB(path); }
  bool Get(const std::string& key) { return !db_.GetPersistentData(key).empty(); }
  bool Set(const std::string& key, const std::string& value) {
    return db_.SetPersistentData(key, value) == 0;
  }
  bool Begin() { return db_.Begin() == 0; }
  bool Commit() { return db_.Commit() == 0; }

 private:
  zarn::utils::CZARNSqliteDB db_;
};

class Hand {
 public:
  explicit Hand(const std::string& path) {
    if (sqlite3_open(path.c_str(), &handle_) != SQLITE_OK) Fail("sqlite3_open");
    Run("CREATE TABLE ZARNDATA(URL TEXT PRIMARY KEY     NOT NULL,VALUE           TEXT    NOT "
        "NULL);");
  }
  ~Hand() { sqlite3_close(handle_); }
  Hand(const Hand&) = delete;
  Hand& operator=(const Hand&) = delete;

  bool Get(const std::string& key) {
    std::string value;
    const auto take = [](void* data, int, char** values, char**) {
      static_cast<std::string*>(data)->assign(values[0]);
      return 0;
    };
    const std::string text = "SELECT VALUE FROM ZARNDATA where URL= '" + key + "'";
    char* error = nullptr;
    const int code = sqlite3_exec(handle_, text.c_str(), take, &value, &error);
    sqlite3_free(error);
    return code == SQLITE_OK && !value.empty();
  }
  bool Set(const std::string& key, const std::string& value) {
    return Run("INSERT INTO ZARNDATA (URL,VALUE) VALUES ('" + key + "', '" + value + "');") ||
           Run("UPDATE ZARNDATA SET VALUE='" + value + "' WHERE URL='" + key + "';");
  }
  bool Begin() { return Run("begin;"); }
  bool Commit() { return Run("commit;"); }

 private:
  bool Run(const std::string& text) {
    char* error = nullptr;
    const int code = sqlite3_exec(handle_, text.c_str(), nullptr, nullptr, &error);
    sqlite3_free(error);
    return code == SQLITE_OK;
  }

  sqlite3* handle_ = nullptr;
};

void Expect(bool done) {
  if (!done) Fail("the store has refused");
}

template <class Store>
double Measure(const StoreOptions& options, const std::string& path) {
  Store store(path);
  Expect(store.Begin());
  for (std::uint64_t i = 0; i < kEntries; ++i) Expect(store.Set(KeyOf(i), ValueOf(i)));
  Expect(store.Commit());
  const std::string& operation = options.operation;
  if (operation == "get")
    return MeasureEach(options, [&](std::uint64_t i) { Expect(store.Get(KeyOf(Scatter(i)))); });
  if (operation == "insert")
    return MeasureEach(
        options, [&](std::uint64_t i) { Expect(store.Set(KeyOf(kEntries + i), ValueOf(i))); });
  if (operation == "replace")
    return MeasureEach(options,
                       [&](std::uint64_t i) { Expect(store.Set(KeyOf(Scatter(i)), ValueOf(i))); });
  if (operation != "batch") Fail("no operation " + operation);
  return MeasureEach(options,
                     [&](std::uint64_t batch) {
                       Expect(store.Begin());
                       for (std::uint64_t i = batch * kBatch; i < (batch + 1) * kBatch; ++i)
                         Expect(store.Set(KeyOf(Scatter(i)), ValueOf(i)));
                       Expect(store.Commit());
                     }) /
         kBatch;
}

}  // namespace

int main(int argc, char** argv) {
  return MainOfStore(argc, argv, {"zarn", Measure<Zarn>}, {"hand", Measure<Hand>});
}
