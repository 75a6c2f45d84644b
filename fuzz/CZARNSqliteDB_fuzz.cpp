// CZARNSqliteDB_fuzz.cpp - operations on a store in any order, beside a map that must agree. Keys
// and values are any bytes but quotes, which change the statements.
#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "FuzzInput.h"
#include "zarn/utils/CZARNSqliteDB.h"

namespace {

using zarn::test::FuzzInput;
using Map = zarn::utils::CZARNSqliteDB::DataMap;

constexpr unsigned kDone = 0;
constexpr unsigned kFailed = 10001;

std::string& Directory() {
  static std::string directory;
  return directory;
}

void RemoveDirectory() { std::filesystem::remove_all(Directory()); }

void Check(bool condition) {
  if (!condition) std::abort();
}

bool HasNul(const std::string& text) { return text.find('\0') != std::string::npos; }

class Model {
 public:
  Model() { Check(db_.InitDB(path_) == kDone); }
  ~Model() {
    db_.CloseDB();
    std::filesystem::remove(path_);
  }

  void Step(FuzzInput& input) {
    const unsigned operation = input.Byte() % 8;
    const std::string key = Text(input);
    switch (operation) {
      case 0:
        return Set(key, Text(input));
      case 1:
        return Update(key, Text(input));
      case 2:
        return Remove(key);
      case 3:
        return Begin();
      case 4:
        return Commit();
      case 5:
        return Reopen();
      case 6:
        return CompareAll();
      default:
        return Get(key);
    }
  }

  void CompareAll() {
    Map all = {{"was there", "before"}};
    Map expected = map_;
    expected.insert({"was there", "before"});
    Check(db_.GetAllData(all) == kDone);
    Check(all == expected);
  }

 private:
  static std::string Text(FuzzInput& input) {
    std::string text = input.Text();
    std::replace(text.begin(), text.end(), '\'', '"');
    return text;
  }

  void Set(const std::string& key, const std::string& value) {
    const bool good = !key.empty() && !value.empty() && !HasNul(key) && !HasNul(value);
    Check(db_.SetPersistentData(key, value) == (good ? kDone : kFailed));
    if (good) map_[key] = value;
    Get(key);
  }

  void Update(const std::string& key, const std::string& value) {
    // What fails prints why, which nobody wants to read here.
    if (HasNul(key) || HasNul(value)) return;
    const bool good = !key.empty() && !value.empty();
    Check(db_.UpdatePersistentData(key, value) == (good ? kDone : kFailed));
    if (good && map_.count(key) != 0) map_[key] = value;
  }

  void Remove(const std::string& key) {
    const bool good = !key.empty() && !HasNul(key);
    Check(db_.RemovePersistentData(key) == (good ? kDone : kFailed));
    if (good) map_.erase(key);
  }

  void Get(const std::string& key) {
    const auto found = map_.find(key);
    Check(db_.GetPersistentData(key) == (found == map_.end() ? "" : found->second));
  }

  void Begin() {
    Check(db_.Begin() == (inBatch_ ? SQLITE_ERROR : SQLITE_OK));
    if (!inBatch_) committed_ = map_;
    inBatch_ = true;
  }

  void Commit() {
    Check(db_.Commit() == (inBatch_ ? SQLITE_OK : SQLITE_ERROR));
    inBatch_ = false;
  }

  void Reopen() {
    Check(db_.InitDB(path_) == kFailed);  // the table is there
    if (inBatch_) map_ = committed_;
    inBatch_ = false;
    CompareAll();
  }

  const std::string path_ = Directory() + "/db";
  zarn::utils::CZARNSqliteDB db_;
  Map map_;
  Map committed_;
  bool inBatch_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Directory() = zarn::test::MakeFuzzDirectory();
  std::atexit(RemoveDirectory);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  Model model;
  while (!input.IsEmpty()) model.Step(input);
  model.CompareAll();
  return 0;
}
