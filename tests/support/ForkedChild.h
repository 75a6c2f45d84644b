// ForkedChild.h - a piece of a test that runs in a process of its own.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <utility>

namespace zarn::test {

// Forks and runs `work` there; the process exits with 0 when it answers true. Ends with the object.
class ForkedChild {
 public:
  explicit ForkedChild(const std::function<bool()>& work) : pid_(::fork()) {
    if (pid_ == 0) ::_exit(work() ? 0 : 1);
  }
  ~ForkedChild() { Kill(); }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;

  bool Succeeded() {
    int status = -1;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  void Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(std::exchange(pid_, -1), nullptr, 0);
  }

 private:
  pid_t pid_;
};

}  // namespace zarn::test
