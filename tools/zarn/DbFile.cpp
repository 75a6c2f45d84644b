// DbFile.cpp - see DbFile.h.
#include "DbFile.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "Escape.h"
#include "SuperJournal.h"

namespace zarn::tool {

namespace {

constexpr int kBusyWaitMs = 5000;

using Statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

Statement Prepare(sqlite3* handle, const char* text) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(handle, text, -1, &statement, nullptr);
  return {statement, &sqlite3_finalize};
}

// Text as UTF-8, also of a store in UTF-16. It may find no memory for that: see HasMemory.
std::string_view ColumnOf(const Statement& statement, int column) {
  const bool isBlob = sqlite3_column_type(statement.get(), column) == SQLITE_BLOB;
  const void* bytes = isBlob ? sqlite3_column_blob(statement.get(), column)
                             : sqlite3_column_text(statement.get(), column);
  const int size = sqlite3_column_bytes(statement.get(), column);
  return bytes == nullptr ? std::string_view()
                          : std::string_view(static_cast<const char*>(bytes), std::size_t(size));
}

bool HasMemory(sqlite3* handle) { return sqlite3_errcode(handle) != SQLITE_NOMEM; }

}  // namespace

std::string NameForSqlite(const std::string& path) {
  return path.starts_with(':') || path.starts_with("file:") ? "./" + path : path;
}

DbFile::DbFile(const std::string& path) : path_(path), state_(Examine()) {}

DbFile::~DbFile() { sqlite3_close(handle_); }

bool DbFile::Fail() {
  reason_ = Escape(sqlite3_errmsg(handle_));  // it may name what the file names
  return false;
}

DbFile::State DbFile::Examine() {
  struct stat status {};
  if (::stat(path_.c_str(), &status) != 0) {
    reason_ = std::strerror(errno);
    return errno == ENOENT ? State::missing : State::unreadable;
  }
  // Writable where that is possible: what a killed writer left has to be undone first.
  if (sqlite3_open_v2(NameForSqlite(path_).c_str(), &handle_, SQLITE_OPEN_READWRITE, nullptr) !=
      SQLITE_OK) {
    Fail();
    return State::unreadable;
  }
  if (utils::NamesSuperJournal(handle_)) {
    reason_ = "its journal names another file, which SQLite would delete";
    return State::unreadable;
  }
  sqlite3_busy_timeout(handle_, kBusyWaitMs);
  const Statement tables =
      Prepare(handle_, "SELECT 1 FROM sqlite_master WHERE type='table' AND name='ZARNDATA'");
  const int found = sqlite3_step(tables.get());
  if (found == SQLITE_DONE) return State::noTable;
  const Statement rows = Prepare(handle_, "SELECT URL,VALUE FROM ZARNDATA LIMIT 1");
  const int row = found == SQLITE_ROW ? sqlite3_step(rows.get()) : found;
  if (row == SQLITE_ROW || row == SQLITE_DONE) return State::usable;
  Fail();
  return State::unreadable;
}

bool DbFile::Find(std::string_view key, std::optional<std::string>& value) {
  const Statement select = Prepare(handle_, "SELECT VALUE FROM ZARNDATA WHERE URL=?");
  sqlite3_bind_text(select.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  const int code = sqlite3_step(select.get());
  if (code == SQLITE_DONE) return true;
  if (code != SQLITE_ROW) return Fail();
  const std::string_view found = ColumnOf(select, 0);
  if (!HasMemory(handle_)) return Fail();
  value = found;
  return true;
}

std::optional<std::uint64_t> DbFile::Count() {
  const Statement count = Prepare(handle_, "SELECT COUNT(*) FROM ZARNDATA");
  if (sqlite3_step(count.get()) == SQLITE_ROW)
    return static_cast<std::uint64_t>(sqlite3_column_int64(count.get(), 0));
  Fail();
  return std::nullopt;
}

bool DbFile::ForEach(const Visit& visit) {
  const Statement select = Prepare(handle_, "SELECT URL,VALUE FROM ZARNDATA ORDER BY URL");
  int code = SQLITE_ROW;
  while ((code = sqlite3_step(select.get())) == SQLITE_ROW) {
    const std::string_view key = ColumnOf(select, 0);
    const std::string_view value = ColumnOf(select, 1);
    if (!HasMemory(handle_)) return Fail();
    if (!visit(key, value)) return true;
  }
  return code == SQLITE_DONE || Fail();
}

std::string DbFile::ExplainWriteFailure(std::string_view key) {
  if (handle_ == nullptr) return "it cannot be made";
  if (sqlite3_db_readonly(handle_, "main") == 1) return "it is read-only";
  sqlite3_busy_timeout(handle_, 0);
  const bool begun = sqlite3_step(Prepare(handle_, "BEGIN IMMEDIATE").get()) == SQLITE_DONE;
  const bool written = begun && TryToWrite(key);
  std::string reason = written ? "no room, or somebody else was reading or writing"
                               : Escape(sqlite3_errmsg(handle_));
  sqlite3_step(Prepare(handle_, "ROLLBACK").get());
  return reason;
}

bool DbFile::TryToWrite(std::string_view key) {
  const Statement attempt =
      Prepare(handle_, state_ == State::noTable
                           ? "CREATE TABLE ZARNDATA(URL,VALUE)"
                           : "INSERT OR REPLACE INTO ZARNDATA(URL,VALUE) VALUES(?,'')");
  sqlite3_bind_text(attempt.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  return sqlite3_step(attempt.get()) == SQLITE_DONE;
}

}  // namespace zarn::tool
