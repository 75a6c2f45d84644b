// CZARNSqliteDB.h - texts under text keys, in one table of an SQLite file.
#pragma once

#include <unordered_map>

#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"
#include "zarn/utils/zarndefines.h"

struct sqlite3;

namespace zarn::utils {

// A store for settings: get, set, update, remove and read all, each a statement of its own.
//
//   zarn::utils::CZARNSqliteDB db;
//   db.InitDB(path);  // 10001 too when the file was there before: see below
//   db.SetPersistentData("zarn://node/name", "north");
//   db.GetPersistentData("zarn://node/name");  // "north"
//
// Keys and values stand between single quotes in the text of the statement, unescaped. One with a
// quote in it makes the statement fail or changes its meaning, up to deleting everything: keys and
// values must come from trusted code, or be searched for quotes first. One with a NUL byte fails.
//
// On disk: what a call has reported as written survives the process, however that ends, and is
// handed to the disk before the call returns; a batch between Begin and Commit counts as one write,
// done when Commit answers 0. docs/stores.md has the details.
//
// Threads: one thread at a time. Processes: no other one is waited for; a write fails while another
// process reads or writes the file, a read while one writes. Forking: a child uses no store of its
// parent, and ends with _exit: the end of the object in it would undo the parent's batch.
// Ownership: the object owns its connection and closes it at its end; a batch that was begun and
// not committed is undone then.
class ZARNUTILS_API CZARNSqliteDB {
 public:
  using DataMap =
      std::unordered_map<keelbase::CAWString, keelbase::CAWString, keelbase::CAWStringHash>;

  CZARNSqliteDB() = default;
  ~CZARNSqliteDB() { CloseDB(); }
  CZARNSqliteDB(const CZARNSqliteDB&) = delete;
  CZARNSqliteDB& operator=(const CZARNSqliteDB&) = delete;

  // Opens the file, or makes it, and makes the table; closes what was open before. 0: the table is
  // new. 10001: the table was there already, and everything works; or the file cannot be used, and
  // every operation but GetAllData will say so; or another process was using it, and the table may
  // be missing: then the first write fails, and InitDB is to be called again. `path` is handed to
  // SQLite, to which "" and ":memory:" are stores that nobody else sees, and what begins with
  // "file:" is a URI, whose file may be another one; one with a NUL byte is answered with 10001.
  keelbase::AWResult InitDB(const keelbase::CAWString& path);
  keelbase::AWResult CloseDB();  // 0, also when closed

  // A batch: what is done between the two is written once, all or nothing. The code of SQLite, 0
  // when done; 21 (misuse) on a closed store. Begin within a batch answers 1 and goes on with it.
  // An operation that fails for want of room may undo the batch at once: what follows counts by
  // itself then, and Commit answers 1. So after a failure give the batch up.
  int Begin();
  int Commit();

  // Empty when there is none, and when it cannot be read.
  keelbase::CAWString GetPersistentData(const keelbase::CAWString& key);

  // Inserts, or replaces. 0; 10001 when closed, when key or value is empty, when the file cannot be
  // written and when memory runs out; nothing has changed then, unless a batch was undone.
  keelbase::AWResult SetPersistentData(const keelbase::CAWString& key,
                                       const keelbase::CAWString& value);
  keelbase::AWResult SetOrUpdatePersistentData(const keelbase::CAWString& key,
                                               const keelbase::CAWString& value);

  // Replaces, and does nothing when there is none. As SetPersistentData; an error of SQLite is
  // printed to standard error too.
  keelbase::AWResult UpdatePersistentData(const keelbase::CAWString& key,
                                          const keelbase::CAWString& value);

  // 0, also when there was none; 10001 when closed, for an empty key, and when it fails.
  keelbase::AWResult RemovePersistentData(const keelbase::CAWString& key);

  // Adds all to the map, over what it holds under the same keys. 10001 when closed, or without
  // memory to begin with, else 0: an error on the way is printed to standard error, and the rows
  // from there on are missing.
  keelbase::AWResult GetAllData(DataMap& map);

  // What SQLite calls for each row; `data` is a CAWString for the first, a DataMap for the second.
  // Anything but 0 ends the statement with an error.
  static int callback(void* data, int columns, char** values, char** names);
  static int selectcallback(void* data, int columns, char** values, char** names);

 private:
  sqlite3* handle_ = nullptr;
};

}  // namespace zarn::utils
