// DbFile.h - the file of an SQLite store as it is: whether it is one, what is in it, and why it
// cannot be read or written. The library's own class has one code for all of that.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;

namespace zarn::tool {

// The name under which SQLite finds that file: a few have a meaning of their own to it.
std::string NameForSqlite(const std::string& path);

class DbFile {
 public:
  enum class State {
    missing,     // there is no file
    noTable,     // an SQLite file, or an empty one, without our table
    usable,      // a store
    unreadable,  // anything else
  };

  explicit DbFile(const std::string& path);
  ~DbFile();
  DbFile(const DbFile&) = delete;
  DbFile& operator=(const DbFile&) = delete;

  State GetState() const { return state_; }
  const std::string& GetReason() const { return reason_; }  // of the last failure, escaped

  // False, or nothing, with a reason, when it cannot be read.
  bool Find(std::string_view key, std::optional<std::string>& value);
  std::optional<std::uint64_t> Count();
  // All entries in the order of their keys, as they were at one moment, until `visit` says false.
  using Visit = std::function<bool(std::string_view key, std::string_view value)>;
  bool ForEach(const Visit& visit);

  // Why that key cannot be written to it, escaped. Tries it, and undoes that.
  std::string ExplainWriteFailure(std::string_view key);

 private:
  State Examine();
  bool Fail();
  bool TryToWrite(std::string_view key);

  const std::string path_;
  sqlite3* handle_ = nullptr;
  std::string reason_;
  State state_;
};

}  // namespace zarn::tool
