// CAWShmBase.cpp - a shared memory segment in a file: attaching, detaching, locking.
#include "keelbase/CAWShmBase.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>

#include "ShmFile.h"
#include "keelbase/CAWTrace.h"
#include "keelbase/internal/ShmHeader.h"

namespace keelbase {
namespace {

using internal::kShmHeaderSize;
using internal::ShmHeader;

void Complain(const char* what, const CAWString& path) {
  char text[512];
  CAWTextFormator line(text, sizeof(text));
  line << "Shared memory: " << what << ": " << path;
  IAWTraceManager::Instance()->Trace(0, line.View());
}

ShmHeader& AsHeader(void* mapping) { return *static_cast<ShmHeader*>(mapping); }

}  // namespace

AWResult CAWShmBase::Create(const CAWString& path, std::size_t size, int flags) {
  constexpr std::size_t kMaxSize =
      static_cast<std::size_t>(std::numeric_limits<std::int64_t>::max()) - kShmHeaderSize;
  const char* misuse = nullptr;
  if (header_ != nullptr) misuse = "attached already";
  if (size == 0 || size > kMaxSize) misuse = "not a possible size";
  if (flags != 0) misuse = "unknown flags";
  if (path.find('\0') != CAWString::npos) misuse = "a NUL byte in the path";
  if (misuse != nullptr) {
    Complain(misuse, path);
    return AW_ERROR_FAILURE;
  }
  try {
    path_ = path;
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
  return Attach(size);
}

AWResult CAWShmBase::Attach(std::size_t size) {
  internal::ShmFile file(path_);
  AWResult result = file.OpenLocked();
  if (result == AW_OK) result = file.MakeOrCheck(size);
  if (result != AW_OK) {
    Complain(file.GetError(), path_);
    return result;
  }
  void* mapping = ::mmap(nullptr, kShmHeaderSize + file.GetMemorySize(), PROT_READ | PROT_WRITE,
                         MAP_SHARED, file.GetHandle(), 0);
  if (mapping == MAP_FAILED) {
    Complain("cannot be mapped", path_);
    return AW_ERROR_FAILURE;
  }
  header_ = mapping;
  address_ = static_cast<char*>(mapping) + kShmHeaderSize;
  size_ = file.GetMemorySize();
  holder_ = 0;
  abandoned_ = false;
  return AW_OK;
}

AWResult CAWShmBase::Close(int mode) {
  if (mode != 1) return AW_ERROR_FAILURE;
  if (header_ == nullptr) return AW_OK;
  // A lock that goes away while it is held would stay on its thread's list of robust locks.
  MemUnlock();
  ::munmap(header_, kShmHeaderSize + size_);
  header_ = nullptr;
  address_ = nullptr;
  size_ = 0;
  return AW_OK;
}

AWResult CAWShmBase::MemLock() {
  if (header_ == nullptr) return AW_ERROR_NOT_INITIALIZED;
  ShmHeader& header = AsHeader(header_);
  const int error = ::pthread_mutex_lock(&header.lock);
  if (error == EOWNERDEAD) ::pthread_mutex_consistent(&header.lock);
  if (error != 0 && error != EOWNERDEAD) return AW_ERROR_FAILURE;
  abandoned_ = header.held != 0 || error == EOWNERDEAD;
  header.held = 1;
  holder_ = ::gettid();
  if (abandoned_) Complain("somebody died while holding the lock, it may be half changed", path_);
  return AW_OK;
}

AWResult CAWShmBase::MemUnlock() {
  if (header_ == nullptr) return AW_ERROR_NOT_INITIALIZED;
  if (holder_ != ::gettid()) return AW_ERROR_FAILURE;
  ShmHeader& header = AsHeader(header_);
  holder_ = 0;
  abandoned_ = false;
  header.held = 0;
  return ::pthread_mutex_unlock(&header.lock) == 0 ? AW_OK : AW_ERROR_FAILURE;
}

}  // namespace keelbase
