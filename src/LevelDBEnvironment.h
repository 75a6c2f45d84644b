// LevelDBEnvironment.h - the files of one database, as its LevelDB gets to see them.
#pragma once

#include <leveldb/env.h>
#include <leveldb/slice.h>
#include <leveldb/status.h>

#include <atomic>
#include <string>
#include <vector>

namespace zarn::utils {

// What went wrong and LevelDB would pass over: without knowing it, it deletes files that it has not
// read, or takes for written what may be lost. From then on it makes and deletes no file: an Open
// fails and leaves what is there, and an open database takes no more writes. Any thread, but for
// SetLogger.
class LevelDBFailure {
 public:
  leveldb::Status Set(const leveldb::Status& status);  // returns it
  bool IsSet() const { return isSet_; }
  leveldb::Status Refuse(const std::string& name) const;

  void SetLogger(leveldb::Logger* logger) { logger_ = logger; }

 private:
  std::atomic<bool> isSet_{false};
  leveldb::Logger* logger_ = nullptr;
};

// Starts the thread that all databases of the process share, before any is opened. LevelDB would
// start it within a write, and a system that gives none would leave that write's locks locked.
// Where it cannot be started it never can, and no database is to be opened. Any thread.
bool StartLevelDBThread();

// With `sync` a log is in its directory for good before it takes a write, and so is the database
// when it is open. A file takes nothing more after a failed write.
class LevelDBEnvironment final : public leveldb::EnvWrapper {
 public:
  // Makes the directory when it is not there. It stays open, so no other gets its inode.
  LevelDBEnvironment(const std::string& path, bool sync);
  ~LevelDBEnvironment() override;
  LevelDBEnvironment(const LevelDBEnvironment&) = delete;
  LevelDBEnvironment& operator=(const LevelDBEnvironment&) = delete;

  int GetDirectory() const { return directory_; }  // below 0 when it cannot be used

  bool FileExists(const std::string& name) override;
  leveldb::Status GetChildren(const std::string& directory,
                              std::vector<std::string>* names) override;
  leveldb::Status NewSequentialFile(const std::string& name,
                                    leveldb::SequentialFile** result) override;
  leveldb::Status NewRandomAccessFile(const std::string& name,
                                      leveldb::RandomAccessFile** result) override;
  leveldb::Status NewWritableFile(const std::string& name, leveldb::WritableFile** result) override;
  leveldb::Status RenameFile(const std::string& from, const std::string& to) override;
  leveldb::Status RemoveFile(const std::string& name) override;
  leveldb::Status LockFile(const std::string& name, leveldb::FileLock** lock) override;
  leveldb::Status NewLogger(const std::string& name, leveldb::Logger** result) override;

 private:
  bool HoldsEntries(const std::string& directory);
  leveldb::Status SyncDirectoryOf(const std::string& name);

  const int directory_;
  const bool sync_;
  LevelDBFailure failure_;
};

}  // namespace zarn::utils
