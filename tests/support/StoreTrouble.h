// StoreTrouble.h - what a disk does to those who write: no room, and no permission. For a process
// of its own, which keeps it to its end.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace zarn::test {

// From now on no file grows beyond `bytes`: writes fail as on a full disk.
inline bool LimitFileSize(rlim_t bytes) {
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{bytes, bytes};
  return ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

// The first write that makes a file grow beyond `bytes` fails half done, as on a full disk. From
// then on there is room again.
inline bool LimitFileSizeOnce(rlim_t bytes) {
  ::signal(SIGXFSZ, [](int) {
    rlimit lifted{};
    ::getrlimit(RLIMIT_FSIZE, &lifted);
    lifted.rlim_cur = lifted.rlim_max;
    ::setrlimit(RLIMIT_FSIZE, &lifted);
  });
  rlimit limit{};
  if (::getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
  limit.rlim_cur = bytes;
  return ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

// Root may do anything and becomes somebody else, whom permissions keep out.
inline bool LeaveRoot() {
  constexpr uid_t kNobody = 65534;
  return ::geteuid() != 0 || ::setresuid(kNobody, kNobody, kNobody) == 0;
}

// From now on the directory cannot be written to.
inline bool MakeReadOnly(const std::string& directory) {
  return ::chmod(directory.c_str(), 0555) == 0 && LeaveRoot();
}

}  // namespace zarn::test
