// Descriptors.h - lets a process run out of descriptors, and gives them back.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace e2e {

inline bool SetDescriptorLimit(rlim_t limit) {
  rlimit limits{};
  if (::getrlimit(RLIMIT_NOFILE, &limits) != 0) return false;
  limits.rlim_cur = limit;
  return ::setrlimit(RLIMIT_NOFILE, &limits) == 0;
}

inline bool GiveDescriptorsBack() {
  rlimit limits{};
  if (::getrlimit(RLIMIT_NOFILE, &limits) != 0) return false;
  return SetDescriptorLimit(limits.rlim_max);
}

// From now on nothing can be opened. What is open stays so, also above the limit.
inline bool ForbidNewDescriptors() {
  const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (lowest < 0) return false;
  ::close(lowest);
  return SetDescriptorLimit(static_cast<rlim_t>(lowest));
}

}  // namespace e2e
