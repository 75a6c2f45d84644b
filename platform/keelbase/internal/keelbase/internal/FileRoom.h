// FileRoom.h - the room that a file of shared memory takes.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstddef>

#include "keelbase/internal/Uninterrupted.h"

namespace keelbase::internal {

// Past the process's limit on file sizes the kernel answers with a signal that ends the process.
inline bool IsAboveFileLimit(std::size_t size) {
  rlimit limit{};
  return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && size > limit.rlim_cur;
}

// Takes the room for all of it, so that no later touch finds none. 0 or an errno value.
inline int ReserveRoom(int file, std::size_t size) {
  const auto reserve = [&] { return ::fallocate(file, 0, 0, static_cast<off_t>(size)); };
  return Uninterrupted(reserve) == 0 ? 0 : errno;
}

}  // namespace keelbase::internal
