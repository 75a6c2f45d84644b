// ShmFile.cpp - the file behind a CAWShmBase while it is being made or attached.
#include "ShmFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <thread>

#include "keelbase/internal/FileRoom.h"

namespace keelbase::internal {
namespace {

constexpr std::chrono::seconds kLockWait{10};
constexpr std::chrono::milliseconds kLockRetry{1};
constexpr int kOpenTries = 1000;  // each lost try means that somebody deleted the file meanwhile

// Tells one start of the machine from the next: a lock that was held when the machine went down is
// freed by nobody. Empty when the system does not say.
void ReadBootId(char (&out)[sizeof(ShmHeader::bootId)]) {
  std::memset(out, 0, sizeof(out));
  const FileDescriptor file(::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
  if (!file || ::read(file.Get(), out, sizeof(out)) < 0) std::memset(out, 0, sizeof(out));
}

bool InitialiseLock(pthread_mutex_t& lock) {
  pthread_mutexattr_t attributes;
  if (::pthread_mutexattr_init(&attributes) != 0) return false;
  const bool made = ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                    ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK) == 0 &&
                    ::pthread_mutex_init(&lock, &attributes) == 0;
  ::pthread_mutexattr_destroy(&attributes);
  return made;
}

}  // namespace

// Unlocks by name: a child forked meanwhile shares the descriptor, and with it the lock.
ShmFile::~ShmFile() {
  if (locked_) ::flock(file_.Get(), LOCK_UN);
}

AWResult ShmFile::Fail(const char* error, AWResult result) {
  error_ = error;
  return result;
}

AWResult ShmFile::OpenLocked() {
  for (int tries = 0; tries < kOpenTries; ++tries) {
    AWResult result = Open();
    if (result == AW_OK) result = Lock();
    if (result != AW_OK || IsStillNamed()) return result;
  }
  return Fail("is deleted again and again", AW_ERROR_NOT_AVAILABLE);
}

AWResult ShmFile::Open() {
  locked_ = false;
  // O_NONBLOCK: whatever stands there instead of a file must not make the open wait.
  file_.Reset(::open(path_.c_str(),
                     O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600));
  if (!file_) return Fail(errno == ELOOP ? "is a symbolic link" : "cannot be opened");
  struct stat status {};
  if (::fstat(file_.Get(), &status) != 0) return Fail("cannot be read");
  if (!S_ISREG(status.st_mode)) return Fail("is not a regular file");
  if (status.st_uid != ::geteuid()) return Fail("belongs to another user");
  return AW_OK;
}

AWResult ShmFile::Lock() {
  const auto deadline = std::chrono::steady_clock::now() + kLockWait;
  while (::flock(file_.Get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return Fail("cannot be locked");
    if (std::chrono::steady_clock::now() >= deadline) {
      return Fail("is kept locked by another process", AW_ERROR_NOT_AVAILABLE);
    }
    std::this_thread::sleep_for(kLockRetry);
  }
  locked_ = true;
  return AW_OK;
}

// Another process may have deleted the file between our open and our lock.
bool ShmFile::IsStillNamed() const {
  struct stat ours {};
  struct stat named {};
  return ::fstat(file_.Get(), &ours) == 0 && ::lstat(path_.c_str(), &named) == 0 &&
         ours.st_dev == named.st_dev && ours.st_ino == named.st_ino;
}

AWResult ShmFile::MakeOrCheck(std::size_t size) {
  struct stat status {};
  if (::fstat(file_.Get(), &status) != 0) return Fail("cannot be read");
  if (status.st_size == 0) return Make(size);

  ShmHeader header{};
  const ssize_t got = ::pread(file_.Get(), &header, sizeof(header), 0);
  if (got < static_cast<ssize_t>(sizeof(header.state))) return Fail("is not a segment");
  if (header.state == kShmMaking) return Make(size);
  if (got < static_cast<ssize_t>(sizeof(header)) || header.state != kShmReady) {
    return Fail("is not a segment");
  }
  return Check(header, static_cast<std::size_t>(status.st_size), size);
}

AWResult ShmFile::Make(std::size_t size) {
  const AWResult result = Fill(size);
  if (result != AW_OK) ::unlink(path_.c_str());  // ours under the lock, and there is nothing in it
  return result;
}

AWResult ShmFile::Fill(std::size_t size) {
  const std::size_t fileSize = kShmHeaderSize + size;
  if (IsAboveFileLimit(fileSize)) return Fail("no room: the process's limit on file sizes");
  if (::ftruncate(file_.Get(), 0) != 0 || ::fchmod(file_.Get(), 0600) != 0) {
    return Fail("cannot be changed");
  }
  ShmHeader header{};
  header.state = kShmMaking;
  if (Store(header) != AW_OK) return AW_ERROR_FAILURE;

  // Not ReserveRoom: this one also serves file systems that cannot reserve.
  int error = 0;
  do {
    error = ::posix_fallocate(file_.Get(), 0, static_cast<off_t>(fileSize));
  } while (error == EINTR);
  if (error != 0) return Fail("no room");

  header.version = kShmVersion;
  header.lockSize = sizeof(header.lock);
  header.size = size;
  memorySize_ = size;
  return RenewLock(header);
}

AWResult ShmFile::Check(const ShmHeader& header, std::size_t fileSize, std::size_t size) {
  if (header.version != kShmVersion || header.lockSize != sizeof(header.lock)) {
    return Fail("is a segment of another version");
  }
  if (fileSize < kShmHeaderSize || header.size != fileSize - kShmHeaderSize) {
    return Fail("is damaged: its size is not what it was made with");
  }
  if (header.size < size) return Fail("is smaller than asked for");
  // A copy of a segment may have holes. File systems that cannot reserve are taken as they are.
  const int error = ReserveRoom(file_.Get(), fileSize);
  if (error != 0 && error != EOPNOTSUPP) return Fail("no room");
  memorySize_ = header.size;
  char bootId[sizeof(header.bootId)];
  ReadBootId(bootId);
  const bool known = bootId[0] != '\0' && header.bootId[0] != '\0';
  const bool same = std::memcmp(bootId, header.bootId, sizeof(bootId)) == 0;
  return known && !same ? RenewLock(header) : AW_OK;
}

// A fresh lock for this start of the machine, in which nobody has the segment mapped yet.
AWResult ShmFile::RenewLock(ShmHeader header) {
  if (!InitialiseLock(header.lock)) return Fail("its lock cannot be made");
  ReadBootId(header.bootId);
  header.state = kShmReady;
  return Store(header);
}

AWResult ShmFile::Store(const ShmHeader& header) {
  const ssize_t put = ::pwrite(file_.Get(), &header, sizeof(header), 0);
  return put == static_cast<ssize_t>(sizeof(header)) ? AW_OK : Fail("cannot be written");
}

}  // namespace keelbase::internal
