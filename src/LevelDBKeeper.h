// LevelDBKeeper.h - the databases that this process has opened, none of which is ever destroyed.
#pragma once

#include <leveldb/db.h>

#include <string>

namespace zarn::utils {

// Opens a database and keeps it for the rest of the process. Whoever lets go of it leaves its lock,
// its files and its thread as they are, so nothing that still runs in it (a compaction, another
// thread's call, an iterator) ever touches memory that is gone. Any thread. Null when it cannot be
// opened; throws std::bad_alloc.
leveldb::DB* OpenAndKeep(const leveldb::Options& options, const std::string& path);

// Takes the place of a database that was opened here: reads it, and fails every write. Any other
// stands for itself.
leveldb::DB* GetReadOnly(leveldb::DB* database);

// Takes the place of a database that cannot be used any more: every operation fails.
leveldb::DB* GetFailedDatabase();

}  // namespace zarn::utils
