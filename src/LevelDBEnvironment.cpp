// LevelDBEnvironment.cpp - see LevelDBEnvironment.h.
#include "LevelDBEnvironment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

namespace zarn::utils {

using leveldb::Slice;
using leveldb::Status;

namespace {

// LevelDB takes the rest of a log that it cannot read for damaged, and goes on without it.
class WatchedFile final : public leveldb::SequentialFile {
 public:
  WatchedFile(LevelDBFailure& failure, std::unique_ptr<leveldb::SequentialFile> file)
      : failure_(failure), file_(std::move(file)) {}

  Status Read(std::size_t count, Slice* result, char* scratch) override {
    const Status status = file_->Read(count, result, scratch);
    return status.ok() ? status : failure_.Set(status);
  }
  Status Skip(std::uint64_t count) override {
    const Status status = file_->Skip(count);
    return status.ok() ? status : failure_.Set(status);
  }

 private:
  LevelDBFailure& failure_;
  const std::unique_ptr<leveldb::SequentialFile> file_;
};

// A write that failed may have left half a record in the file. LevelDB would write more, but never
// find again what stands behind that, so the file takes nothing any more. One thread at a time.
class FileUntilFailure final : public leveldb::WritableFile {
 public:
  explicit FileUntilFailure(std::unique_ptr<leveldb::WritableFile> file) : file_(std::move(file)) {}

  Status Append(const Slice& data) override {
    return Do([&] { return file_->Append(data); });
  }
  Status Flush() override {
    return Do([&] { return file_->Flush(); });
  }
  Status Sync() override {
    return Do([&] { return file_->Sync(); });
  }
  Status Close() override { return file_->Close(); }

 private:
  template <class Operation>
  Status Do(Operation operation) {
    if (status_.ok()) status_ = operation();
    return status_;
  }

  const std::unique_ptr<leveldb::WritableFile> file_;
  Status status_;
};

// Of a file of LevelDB.
std::string DirectoryOf(const std::string& name) { return name.substr(0, name.rfind('/')); }

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// Puts the name of the directory on disk. When the one above it may not be read, that takes all of
// the file system; one that cannot be synced, such as a read-only one with a mount, keeps its
// names.
bool SyncNameOf(int directory) {
  const int above = ::openat(directory, "..", kOpenDirectory);
  if (above < 0) return errno == EACCES && ::syncfs(directory) == 0;
  const bool synced = ::fsync(above) == 0 || errno == EINVAL;
  ::close(above);
  return synced;
}

// LevelDB would make it, too, but not mind that its name may be lost. Whoever made one that is
// there may not have minded either, or may have been killed before.
int OpenOrMakeDirectory(const std::string& path, bool sync) {
  int directory = ::open(path.c_str(), kOpenDirectory);
  if (directory < 0 && errno == ENOENT) {
    ::mkdir(path.c_str(), 0755);
    directory = ::open(path.c_str(), kOpenDirectory);
  }
  if (directory < 0 || !sync || SyncNameOf(directory)) return directory;
  ::close(directory);
  return -1;
}

// As LevelDB names its tables and logs.
bool IsNumbered(const std::string& name, const char* suffix) {
  const std::size_t end = name.find_first_not_of("0123456789");
  return end != 0 && end != std::string::npos && name.compare(end, std::string::npos, suffix) == 0;
}

Status Require(bool isRegular, const std::string& name) {
  return isRegular ? Status() : Status::IOError(name, "is no regular file");
}

// A pipe would keep LevelDB waiting, and a device such as /dev/zero has no end.
Status CheckToRead(const std::string& name) {
  struct stat status {};
  return Require(::stat(name.c_str(), &status) != 0 || S_ISREG(status.st_mode), name);
}

// Through a link LevelDB would write over whatever that leads to.
Status CheckToWrite(const std::string& name) {
  struct stat status {};
  return Require(::lstat(name.c_str(), &status) != 0 || S_ISREG(status.st_mode), name);
}

// LevelDB does not export its own.
[[gnu::format(printf, 2, 3)]] void WriteLine(leveldb::Logger& logger, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  logger.Logv(format, arguments);
  va_end(arguments);
}

}  // namespace

Status LevelDBFailure::Set(const Status& status) {
  isSet_ = true;
  if (logger_ != nullptr) WriteLine(*logger_, "%s", status.ToString().c_str());
  return status;
}

Status LevelDBFailure::Refuse(const std::string& name) const {
  return Status::IOError(name, "is left as it is after a failure");
}

// After a failure a lock of LevelDB stays locked, so it is not asked again.
bool StartLevelDBThread() {
  static const bool isStarted = [] {
    try {
      leveldb::Env::Default()->Schedule([](void* /*nothing*/) {}, nullptr);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }();
  return isStarted;
}

LevelDBEnvironment::LevelDBEnvironment(const std::string& path, bool sync)
    : EnvWrapper(leveldb::Env::Default()),
      directory_(OpenOrMakeDirectory(path, sync)),
      sync_(sync) {}

LevelDBEnvironment::~LevelDBEnvironment() {
  if (directory_ >= 0) ::close(directory_);
}

// Asked for CURRENT only. Told that there is none, LevelDB would make a new database and delete the
// entries of the old one, or what somebody else has given such names.
bool LevelDBEnvironment::FileExists(const std::string& name) {
  if (EnvWrapper::FileExists(name)) return true;
  if (!HoldsEntries(DirectoryOf(name))) return false;
  failure_.Set(Status::IOError(name, "is not found, but tables or logs are; they are kept"));
  return true;
}

// LevelDB's own takes a directory that cannot be read on for one that ends there, and an Open that
// does not see a log deletes it. Told of the failure, an Open fails, and an open database deletes
// less than it could: that is no reason to take no more writes.
Status LevelDBEnvironment::GetChildren(const std::string& directory,
                                       std::vector<std::string>* names) {
  names->clear();
  std::error_code error;
  const std::filesystem::directory_iterator end;
  for (std::filesystem::directory_iterator at(directory, error); !error && at != end;
       at.increment(error))
    names->push_back(at->path().filename());
  return error ? Status::IOError(directory, error.message()) : Status();
}

bool LevelDBEnvironment::HoldsEntries(const std::string& directory) {
  std::vector<std::string> names;
  if (!GetChildren(directory, &names).ok()) return true;
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    std::uint64_t size = 0;
    return IsNumbered(name, ".ldb") || IsNumbered(name, ".sst") ||
           (IsNumbered(name, ".log") &&
            (!GetFileSize(directory + "/" + name, &size).ok() || size != 0));
  });
}

// Those are CURRENT, its MANIFEST and the logs, when the database is opened.
Status LevelDBEnvironment::NewSequentialFile(const std::string& name,
                                             leveldb::SequentialFile** result) {
  *result = nullptr;
  Status status = CheckToRead(name);
  if (status.ok()) status = EnvWrapper::NewSequentialFile(name, result);
  if (!status.ok()) return failure_.Set(status);
  std::unique_ptr<leveldb::SequentialFile> file(std::exchange(*result, nullptr));
  *result = new (std::nothrow) WatchedFile(failure_, std::move(file));
  return *result != nullptr ? status : failure_.Set(Status::IOError(name, "no memory"));
}

Status LevelDBEnvironment::NewRandomAccessFile(const std::string& name,
                                               leveldb::RandomAccessFile** result) {
  *result = nullptr;
  const Status status = CheckToRead(name);
  return status.ok() ? EnvWrapper::NewRandomAccessFile(name, result) : status;
}

Status LevelDBEnvironment::NewWritableFile(const std::string& name,
                                           leveldb::WritableFile** result) {
  *result = nullptr;
  if (failure_.IsSet()) return failure_.Refuse(name);
  Status status = CheckToWrite(name);
  if (!status.ok()) return failure_.Set(status);
  status = EnvWrapper::NewWritableFile(name, result);
  if (!status.ok()) return status;
  std::unique_ptr<leveldb::WritableFile> file(std::exchange(*result, nullptr));
  if (name.ends_with(".log")) status = SyncDirectoryOf(name);
  if (!status.ok()) return status;
  *result = new (std::nothrow) FileUntilFailure(std::move(file));
  return *result != nullptr ? status : Status::IOError(name, "no memory");
}

// LevelDB takes a failure for a CURRENT that is still the old one, and deletes the new MANIFEST.
Status LevelDBEnvironment::RenameFile(const std::string& from, const std::string& to) {
  const Status status = EnvWrapper::RenameFile(from, to);
  return status.ok() && to.ends_with("/CURRENT") ? SyncDirectoryOf(to) : status;
}

Status LevelDBEnvironment::RemoveFile(const std::string& name) {
  return failure_.IsSet() ? failure_.Refuse(name) : EnvWrapper::RemoveFile(name);
}

Status LevelDBEnvironment::LockFile(const std::string& name, leveldb::FileLock** lock) {
  *lock = nullptr;
  const Status status = CheckToWrite(name);
  return status.ok() ? EnvWrapper::LockFile(name, lock) : failure_.Set(status);
}

// Without one LevelDB works just as well.
Status LevelDBEnvironment::NewLogger(const std::string& name, leveldb::Logger** result) {
  *result = nullptr;
  Status status = CheckToWrite(name);
  if (status.ok()) status = EnvWrapper::NewLogger(name, result);
  if (status.ok()) failure_.SetLogger(*result);
  return status;
}

// The name of a file is on disk only when its directory is. After a failure another sync proves
// nothing.
Status LevelDBEnvironment::SyncDirectoryOf(const std::string& name) {
  if (!sync_ || ::fsync(directory_) == 0) return {};
  return failure_.Set(Status::IOError(DirectoryOf(name), "cannot be synced"));
}

}  // namespace zarn::utils
