// SameFile.h - whether two paths or descriptors lead to one file.
#pragma once

#include <sys/stat.h>

namespace zarn::tool {

inline bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace zarn::tool
