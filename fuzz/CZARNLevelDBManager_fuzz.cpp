// CZARNLevelDBManager_fuzz.cpp - operations on a database in any order, beside a map that must
// agree. A database is never shut down, so there is one for all inputs, emptied after each.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "FuzzInput.h"
#include "zarn/utils/CZARNLevelDBManager.h"

namespace {

using zarn::test::FuzzInput;
using zarn::utils::CZARNLevelDBManager;
using Map = std::map<std::string, std::string>;

std::string& Directory() {
  static std::string directory;
  return directory;
}

void RemoveDirectory() { std::filesystem::remove_all(Directory()); }

void Check(bool condition) {
  if (!condition) std::abort();
}

CZARNLevelDBManager& Store() {
  static CZARNLevelDBManager store(false, 0, true, true);
  return store;
}

void CompareAll(const Map& map) {
  auto expected = map.begin();
  Store().DBDump(
      [&](const char* key, unsigned long keyLen, const char* value, unsigned long valueLen) {
        Check(expected != map.end() && expected->first == std::string(key, keyLen) &&
              expected->second == std::string(value, valueLen));
        ++expected;
      });
  Check(expected == map.end());
}

void Step(FuzzInput& input, Map& map) {
  const unsigned operation = input.Byte() % 6;
  std::string key = input.Text();
  if (operation <= 1) {
    std::string value = input.Text();
    if (value.size() % 16 == 15) value.resize(value.size() * 50);  // over several blocks
    const int result = operation == 0
                           ? Store().DBInsert(key.data(), key.size(), value.data(), value.size())
                           : Store().DBUpdate(key.data(), key.size(), value.data(), value.size());
    Check(result == 0);
    map[key] = value;
  } else if (operation == 2) {
    Check(Store().DBRemove(key.data(), key.size()) == 0);
    map.erase(key);
  } else if (operation == 3) {
    CompareAll(map);
  } else {
    std::string value = "before";
    const auto found = map.find(key);
    Check(Store().DBLookup(key.data(), key.size(), &value) == (found == map.end() ? -1 : 0));
    Check(found == map.end() || value == found->second);
  }
}

// What was removed is stepped over by every walk until LevelDB has moved it out of its log, which
// it does behind so many bytes.
void PushOut() {
  std::string key = "push";
  std::string value(std::size_t{5} << 20, 'x');
  Check(Store().DBInsert(key.data(), key.size(), value.data(), value.size()) == 0);
  Check(Store().DBRemove(key.data(), key.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Directory() = zarn::test::MakeFuzzDirectory();
  std::atexit(RemoveDirectory);
  Check(Store().Open((Directory() + "/db").c_str()) == 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  Map map;
  while (!input.IsEmpty()) Step(input, map);
  CompareAll(map);
  for (auto& [key, value] : map) {
    std::string bytes = key;
    Check(Store().DBRemove(bytes.data(), bytes.size()) == 0);
  }
  static unsigned inputs = 0;
  if (++inputs % 32 == 0) PushOut();
  return 0;
}
