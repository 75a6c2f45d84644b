// CZARNShareMemory.cpp - see CZARNShareMemory.h.
#include "zarn/utils/CZARNShareMemory.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string_view>

#include "SystemDirectory.h"
#include "keelbase/CAWFile.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AWResult;
using keelbase::CAWFile;
using keelbase::CAWString;

namespace {

constexpr const char* kDirectory = "/zarn/shm/zarnshmm";  // below the system directory
constexpr const char* kFilePrefix = "/zarn_shm_";
constexpr std::string_view kNotInNames("/\0", 2);
constexpr int kNoRoot = -1;

// Ends at the first way that works or finds nothing: what is there then, another process has made.
void Remove(const CAWString& path) {
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  if (std::remove(path.c_str()) == 0 || errno == ENOENT) return;  // an empty directory too
  CAWFile::DeleteFile(path);
}

}  // namespace

CZARNShareMemory::CZARNShareMemory(const CAWString& name, unsigned int size)
    : name_(name), size_(size) {}

CZARNShareMemory::~CZARNShareMemory() {
  segment_.Close(1);
  Remove(path_);
}

AWResult CZARNShareMemory::MemLock() { return segment_.MemLock(); }

AWResult CZARNShareMemory::MemUnlock() { return segment_.MemUnlock(); }

int CZARNShareMemory::createshm() try {
  const CAWString root = DemandSystemDirectory();
  if (root.empty()) return kNoRoot;
  // Such a name would be that of another file, which our end would remove.
  if (name_.find_first_of(kNotInNames) != CAWString::npos)
    return static_cast<int>(AW_ERROR_FAILURE);
  // The path stays that of the segment, whatever the environment says by now.
  if (segment_.GetAddress() != nullptr) return static_cast<int>(AW_ERROR_FAILURE);
  const CAWString directory = root + kDirectory;
  // What cannot be made shows in the result of Create. A directory is made when something, if only
  // the empty name, stands behind its '/'.
  CAWFile::mkdir(root + "/zarn/");
  CAWFile::mkdir(root + "/zarn/shm/");
  CAWFile::mkdir(directory);
  path_ = directory + kFilePrefix + name_;
  CAWFile::mkdir(path_);
  return static_cast<int>(segment_.Create(path_, size_, 0));
} catch (const std::bad_alloc&) {
  return static_cast<int>(AW_ERROR_FAILURE);
}

}  // namespace zarn::utils
