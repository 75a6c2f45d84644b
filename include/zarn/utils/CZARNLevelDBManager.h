// CZARNLevelDBManager.h - byte strings under byte strings, in a LevelDB database.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "zarn/utils/zarndefines.h"

namespace leveldb {
class DB;
}

namespace zarn::utils {

// The owner of one database: lookup, insert, update, remove, and a walk over everything.
//
//   zarn::utils::CZARNLevelDBManager store(true, 0, true, true);
//   if (store.Open(path) != 0) ...
//   store.DBInsert(key, keyLen, value, valueLen);  // on disk when it answers 0
//   std::string found;
//   if (store.DBLookup(key, keyLen, &found) == 0) ...
//
// Results are 0 and -1, for whatever reason.
//
// On disk: what a call has reported as written survives the process, however that ends. It survives
// a power cut too when it was an insert or a removal and `syncWrites` is true; without that, and
// for updates, the last of them may be missing then. docs/stores.md says more.
//
// A write that fails, as on a full disk, is the last one: it may have left half a record in the
// log, behind which LevelDB would find nothing again. From then on every write of any thread
// answers -1, while reads go on; another process can write once this one has ended. Only one for
// which no new log could be made, as without a descriptor, has left nothing and may be made again.
//
// A database is opened once in the life of a process. Close, and the end of the object, let go of
// the database without shutting it down: its memory, thread, descriptors and the lock of its
// directory stay until the process ends, and then another one can open it. Each further one costs
// as much again.
//
// Forking: LevelDB's thread stays behind, and a child that writes much waits for it for ever. A
// child uses no database of its parent, and opens none when the parent has called Open.
//
// Threads: the operations from any thread at once; Open, Close and the destructor while nothing
// else runs. LevelDB does not survive a failed allocation: the call that meets one answers -1, and
// so do all later ones on that database, from that thread and from others; a thread that is inside
// LevelDB at that moment may stay there, and one that LevelDB itself runs ends the process.
class ZARNUTILS_API CZARNLevelDBManager {
 public:
  using Visitor = std::function<void(const char* key, unsigned long keyLen, const char* value,
                                     unsigned long valueLen)>;

  // syncWrites: DBInsert and DBRemove wait until the disk has it, which takes about as long as the
  // disk needs for one write. compression: LevelDB's own, of what it moves out of its log.
  // createIfMissing: Open makes a database where there is none. reserved has no meaning.
  CZARNLevelDBManager(bool syncWrites, unsigned int reserved, bool compression,
                      bool createIfMissing);
  virtual ~CZARNLevelDBManager();
  CZARNLevelDBManager(const CZARNLevelDBManager&) = delete;
  CZARNLevelDBManager& operator=(const CZARNLevelDBManager&) = delete;

  // -1 also for a database that this process has opened before, by whatever path, or another has
  // open, and for null and "". And for one that cannot be read for the moment, or lacks its file
  // CURRENT: nothing of it is lost, and its file LOG may say why. And when LevelDB's thread cannot
  // be started, which the first Open of a process does: then always. An object that is open lets go
  // of its database first, as Close does, also when it gets no other.
  int Open(const char* path);

  // Keys and values have 1 GiB at most: a longer one is answered with -1, and changes nothing.

  // -1 when there is none, and when it cannot be read; `value` may then hold anything.
  int DBLookup(char* key, unsigned long keyLen, std::string* value);

  // Inserts, or replaces. Only on an open database: before Open and after Close it is not allowed.
  int DBInsert(char* key, unsigned long keyLen, char* value, unsigned long valueLen);

  // The same with a lookup first; never waits for the disk, whatever `syncWrites` is.
  int DBUpdate(char* key, unsigned long keyLen, char* value, unsigned long valueLen);

  int DBRemove(char* key, unsigned long keyLen);  // 0, also when there was none

  // Calls `visit` for every entry in the order of the keys, as they were when it began. The bytes
  // are good until `visit` returns; it may use this object, but not close it. What it throws passes
  // through. What cannot be read is left out without a word.
  void DBDump(Visitor visit);

  void Close();

 private:
  template <class Operation>
  int Run(Operation operation);

  std::atomic<leveldb::DB*> database_{nullptr};
  bool syncWrites_;
  [[maybe_unused]] unsigned int reserved_;  // no code reads it; debuggers show it
  bool compression_;
  bool createIfMissing_;
};

}  // namespace zarn::utils
