// ThreadShortage.h - a system that gives no thread.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

namespace zarn::test {

// As long as it lives, no thread can be started. Root may start any number, so it becomes somebody
// else meanwhile.
class ThreadShortage {
 public:
  ThreadShortage() : isRoot_(::geteuid() == 0) {
    ::getrlimit(RLIMIT_NPROC, &before_);
    rlimit low = before_;
    low.rlim_cur = 0;
    ::setrlimit(RLIMIT_NPROC, &low);
    if (isRoot_) Become(kNobody);
  }
  ~ThreadShortage() {
    if (isRoot_) Become(0);
    ::setrlimit(RLIMIT_NPROC, &before_);
  }
  ThreadShortage(const ThreadShortage&) = delete;
  ThreadShortage& operator=(const ThreadShortage&) = delete;

 private:
  static constexpr uid_t kNobody = 65534;
  // Root stays the saved user, so that there is a way back.
  static bool Become(uid_t user) { return ::setresuid(user, user, 0) == 0; }

  const bool isRoot_;
  rlimit before_{};
};

}  // namespace zarn::test
