// LevelDBKeeper.h - the databases that this process has opened, none of which is ever destroyed.
#pragma once

#include <leveldb/db.h>
#include <leveldb/options.h>

#include <string>

namespace zarn::utils {

// Opens a database and keeps it for the rest of the process. Whoever lets go of it leaves its lock,
// its files and its thread as they are, so nothing that still runs in it (a compaction, another
// thread's call, an iterator) ever touches memory that is gone. Its files take nothing more after a
// failed write. With `sync` a new log is in its directory for good before it takes a write. Any
// thread. Null when it cannot be opened, or is open already, under whatever name, and from then on
// always when LevelDB's thread cannot be started; throws std::bad_alloc.
leveldb::DB* OpenAndKeep(leveldb::Options options, const std::string& path, bool sync);

// Takes the place of a database that cannot be used any more: every operation fails.
leveldb::DB* GetFailedDatabase();

}  // namespace zarn::utils
