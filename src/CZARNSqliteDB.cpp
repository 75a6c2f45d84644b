// CZARNSqliteDB.cpp - see CZARNSqliteDB.h.
#include "zarn/utils/CZARNSqliteDB.h"

#include <sqlite3.h>

#include <cstdio>
#include <memory>
#include <new>

#include "SuperJournal.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWString;

namespace {

// The blanks are part of it: SQLite keeps the text in the file.
constexpr const char* kCreateTable =
    "CREATE TABLE ZARNDATA(URL TEXT PRIMARY KEY     NOT NULL,VALUE           TEXT    NOT NULL);";

enum class Errors { kDropped, kPrinted };

using RowCallback = int (*)(void* data, int columns, char** values, char** names);

// The code of SQLite.
int Execute(sqlite3* handle, const CAWString& statement, Errors errors = Errors::kDropped,
            RowCallback onRow = nullptr, void* data = nullptr) {
  char* text = nullptr;
  const int code = sqlite3_exec(handle, statement.c_str(), onRow, data, &text);
  const std::unique_ptr<char, void (*)(void*)> error(text, &sqlite3_free);
  if (code != SQLITE_OK && errors == Errors::kPrinted) {
    std::fprintf(stderr, "SQL error: %s\n", error ? error.get() : sqlite3_errstr(code));
  }
  return code;
}

AWResult ToResult(int code) { return code == SQLITE_OK ? AW_OK : AW_ERROR_FAILURE; }

// SQL NULL counts as empty.
const char* TextOf(const char* value) { return value != nullptr ? value : ""; }

}  // namespace

AWResult CZARNSqliteDB::InitDB(const CAWString& path) try {
  CloseDB();
  if (path.find('\0') != CAWString::npos) return AW_ERROR_FAILURE;
  if (sqlite3_open(path.c_str(), &handle_) != SQLITE_OK) return AW_ERROR_FAILURE;
  if (NamesSuperJournal(handle_)) {
    CloseDB();
    return AW_ERROR_FAILURE;
  }
  return ToResult(Execute(handle_, kCreateTable));
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNSqliteDB::CloseDB() {
  if (handle_ != nullptr) sqlite3_close(handle_);
  handle_ = nullptr;
  return AW_OK;
}

int CZARNSqliteDB::Begin() { return sqlite3_exec(handle_, "begin;", nullptr, nullptr, nullptr); }

int CZARNSqliteDB::Commit() { return sqlite3_exec(handle_, "commit;", nullptr, nullptr, nullptr); }

CAWString CZARNSqliteDB::GetPersistentData(const CAWString& key) try {
  if (key.empty() || handle_ == nullptr) return {};
  CAWString value;
  const CAWString select = "SELECT VALUE FROM ZARNDATA where URL= '" + key + "'";
  const int code = Execute(handle_, select, Errors::kDropped, callback, &value);
  return code == SQLITE_OK ? value : CAWString();
} catch (const std::bad_alloc&) {
  return {};
}

AWResult CZARNSqliteDB::SetPersistentData(const CAWString& key, const CAWString& value) try {
  if (key.empty() || value.empty() || handle_ == nullptr) return AW_ERROR_FAILURE;
  const CAWString insert =
      "INSERT INTO ZARNDATA (URL,VALUE) VALUES ('" + key + "'" + ", '" + value + "'" + ");";
  const int inserted = Execute(handle_, insert);
  if (inserted == SQLITE_OK) return AW_OK;
  const CAWString update =
      "UPDATE ZARNDATA SET VALUE='" + value + "'" + " WHERE URL='" + key + "'" + ";";
  if (Execute(handle_, update) != SQLITE_OK) return AW_ERROR_FAILURE;
  // Where the file could not be written, an update that found nothing to change proves nothing.
  const bool refused = inserted == SQLITE_CONSTRAINT || inserted == SQLITE_ERROR;
  return refused || sqlite3_changes(handle_) > 0 ? AW_OK : AW_ERROR_FAILURE;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNSqliteDB::SetOrUpdatePersistentData(const CAWString& key, const CAWString& value) {
  return SetPersistentData(key, value);
}

AWResult CZARNSqliteDB::UpdatePersistentData(const CAWString& key, const CAWString& value) try {
  if (key.empty() || value.empty() || handle_ == nullptr) return AW_ERROR_FAILURE;
  const CAWString update = "UPDATE ZARNDATA SET VALUE='" + value + "' WHERE URL='" + key + "';";
  return ToResult(Execute(handle_, update, Errors::kPrinted));
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNSqliteDB::RemovePersistentData(const CAWString& key) try {
  if (key.empty() || handle_ == nullptr) return AW_ERROR_FAILURE;
  const CAWString remove = "DELETE FROM ZARNDATA where URL= '" + key + "'";
  return ToResult(Execute(handle_, remove));
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNSqliteDB::GetAllData(DataMap& map) try {
  if (handle_ == nullptr) return AW_ERROR_FAILURE;
  Execute(handle_, "SELECT * FROM ZARNDATA", Errors::kPrinted, selectcallback, &map);
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

// No exception may reach SQLite, which is C: an error of the statement takes its place. Without
// values it calls for a statement that has no rows, once `PRAGMA empty_result_callbacks` is on.
int CZARNSqliteDB::callback(void* data, int /*columns*/, char** values, char** /*names*/) try {
  if (data == nullptr || values == nullptr) return 0;
  static_cast<CAWString*>(data)->assign(TextOf(values[0]));
  return 0;
} catch (const std::bad_alloc&) {
  return 1;
}

int CZARNSqliteDB::selectcallback(void* data, int columns, char** values, char** /*names*/) try {
  if (data == nullptr || values == nullptr) return 0;
  if (columns != 2) return -1;
  const char* key = TextOf(values[0]);
  // Both texts first: a key whose value finds no memory is not to be there.
  if (*key != '\0')
    static_cast<DataMap*>(data)->insert_or_assign(key, CAWString(TextOf(values[1])));
  return 0;
} catch (const std::bad_alloc&) {
  return 1;
}

}  // namespace zarn::utils
