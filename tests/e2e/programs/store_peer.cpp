// store_peer.cpp - writes to a store until it is killed, looks at what is left, and holds the lock
// of a memory segment.
//
//   store_peer write sqlite|leveldb PATH FIRST   writes number FIRST and all after it, each under
//   one of
//                                                500 keys; prints each once it is acknowledged
//   store_peer check sqlite|leveldb PATH COUNT   0 when all numbers below COUNT are there, the last
//   of
//                                                each key, and no half one; what is wrong otherwise
//   store_peer hold NAME        takes the lock, prints "held", changes the memory until it is
//   killed store_peer survive NAME     for each line of standard input: takes the lock, prints what
//   it found
//                               as a JSON object, repairs the memory and gives the lock back
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <string>

#include "keelbase/CAWAutoPtr.h"
#include "zarn/utils/CZARNLevelDBManager.h"
#include "zarn/utils/CZARNShareMemory.h"
#include "zarn/utils/CZARNSqliteDB.h"
#include "zarn/utils/zarnutils.h"

namespace {

using zarn::utils::CZARNLevelDBManager;
using zarn::utils::CZARNShareMemory;
using zarn::utils::CZARNSqliteDB;

constexpr std::uint64_t kKeys = 500;

std::string KeyOf(std::uint64_t number) { return "zarn://key/" + std::to_string(number % kKeys); }

// Of very different lengths, over several pages of a file now and then.
std::string ValueOf(std::uint64_t number) {
  const std::size_t size = number % 50 == 0 ? 40'000 : 1 + number * 7919 % 5000;
  return std::string(size, static_cast<char>('a' + number % 26)) + std::to_string(number);
}

class Store {
 public:
  virtual ~Store() = default;
  virtual bool Open(const std::string& path) = 0;
  virtual bool Set(std::string key, std::string value) = 0;
  virtual std::map<std::string, std::string> ReadAll() = 0;
};

class SqliteStore final : public Store {
 public:
  bool Open(const std::string& path) override {
    db_.InitDB(path);  // its code tells a new store from one that was there
    return true;
  }
  bool Set(std::string key, std::string value) override {
    return db_.SetPersistentData(key, value) == 0;
  }
  std::map<std::string, std::string> ReadAll() override {
    CZARNSqliteDB::DataMap all;
    db_.GetAllData(all);
    return {all.begin(), all.end()};
  }

 private:
  CZARNSqliteDB db_;
};

class LevelDBStore final : public Store {
 public:
  bool Open(const std::string& path) override { return manager_.Open(path.c_str()) == 0; }
  bool Set(std::string key, std::string value) override {
    return manager_.DBInsert(key.data(), key.size(), value.data(), value.size()) == 0;
  }
  std::map<std::string, std::string> ReadAll() override {
    std::map<std::string, std::string> all;
    manager_.DBDump(
        [&](const char* key, unsigned long keyLen, const char* value, unsigned long valueLen) {
          all[std::string(key, keyLen)] = std::string(value, valueLen);
        });
    return all;
  }

 private:
  CZARNLevelDBManager manager_{true, 0, true, true};
};

bool Print(const std::string& line) {
  return ::write(STDOUT_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

int Write(Store& store, std::uint64_t number) {
  for (;; ++number) {
    if (!store.Set(KeyOf(number), ValueOf(number))) return 1;
    if (!Print(std::to_string(number) + "\n")) return 1;
  }
}

// The write behind the last acknowledged one may be there or not.
int Check(Store& store, std::uint64_t count) {
  std::map<std::string, std::string> all = store.ReadAll();
  int wrong = 0;
  for (std::uint64_t number = count < kKeys ? 0 : count - kKeys; number < count; ++number) {
    const std::string& found = all[KeyOf(number)];
    const bool next = KeyOf(number) == KeyOf(count) && found == ValueOf(count);
    if (found == ValueOf(number) || next) continue;
    std::fprintf(stderr, "number %llu: found %zu bytes that end in %s\n",
                 static_cast<unsigned long long>(number), found.size(),
                 found.substr(found.size() - std::min<std::size_t>(found.size(), 12)).c_str());
    ++wrong;
  }
  if (count < kKeys) {
    const auto extra = all.find(KeyOf(count));
    if (extra != all.end() && extra->second != ValueOf(count)) ++wrong;
  }
  if (all.size() > std::min(count + 1, kKeys)) ++wrong;
  return wrong == 0 ? 0 : 1;
}

// What a holder changes: the two are the same whenever the lock is given back in order.
struct Content {
  std::uint64_t first;
  std::uint64_t second;
};

keelbase::CAWAutoPtr<CZARNShareMemory> Attach(const std::string& name) {
  keelbase::CAWAutoPtr<CZARNShareMemory> memory;
  if (zarn::utils::CreateMemory(memory, name, sizeof(Content)) != 0) std::exit(1);
  return memory;
}

int Hold(const std::string& name) {
  const auto memory = Attach(name);
  if (memory->MemLock() != 0 || !Print("held\n")) return 1;
  auto* content = static_cast<volatile Content*>(memory->GetAddress());
  for (;;) {
    content->first = content->first + 1;
    content->second = content->second + 1;
  }
}

int Survive(const std::string& name) {
  const auto memory = Attach(name);
  if (!Print("ready\n")) return 1;
  for (std::string line; std::getline(std::cin, line);) {
    const auto result = memory->MemLock();
    auto* content = static_cast<volatile Content*>(memory->GetAddress());
    const bool whole = content->first == content->second;
    const bool abandoned = memory->WasAbandoned();
    content->second = content->first;
    if (memory->MemUnlock() != 0) return 1;
    if (!Print("{\"result\": " + std::to_string(result) +
               ", \"abandoned\": " + (abandoned ? "true" : "false") +
               ", \"whole\": " + (whole ? "true" : "false") + "}\n"))
      return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "hold" && argc == 3) return Hold(argv[2]);
  if (mode == "survive" && argc == 3) return Survive(argv[2]);
  if ((mode != "write" && mode != "check") || argc != 5) return 2;
  SqliteStore sqlite;
  LevelDBStore levelDB;
  Store& store = std::strcmp(argv[2], "sqlite") == 0 ? static_cast<Store&>(sqlite) : levelDB;
  if (!store.Open(argv[3])) return 1;
  const std::uint64_t number = std::strtoull(argv[4], nullptr, 10);
  return mode == "write" ? Write(store, number) : Check(store, number);
}
