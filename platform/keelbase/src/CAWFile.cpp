// CAWFile.cpp - making directories and deleting files.
#include "keelbase/CAWFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace keelbase {
namespace {

// The system would end the path there, and make or remove what the caller has not named.
bool HasNul(const CAWString& path) { return path.find('\0') != CAWString::npos; }

bool MakeOne(const CAWString& path) {
  if (::mkdir(path.c_str(), 0700) == 0) return true;
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

AWResult CAWFile::mkdir(const CAWString& path) try {
  if (path.empty() || HasNul(path)) return AW_ERROR_FAILURE;
  for (std::size_t end = path.find('/'); end != CAWString::npos; end = path.find('/', end + 1)) {
    if (end == 0 || path[end - 1] == '/') continue;  // the root, and a doubled '/'
    if (!MakeOne(path.substr(0, end))) return AW_ERROR_FAILURE;
  }
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CAWFile::DeleteFile(const CAWString& path) {
  if (HasNul(path)) return AW_ERROR_FAILURE;
  if (::unlink(path.c_str()) == 0) return AW_OK;
  return errno == ENOENT ? AW_ERROR_NOT_FOUND : AW_ERROR_FAILURE;
}

}  // namespace keelbase
