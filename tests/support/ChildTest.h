// ChildTest.h - runs the current test once more, in a process of its own and in another role.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "keelbase/internal/FileDescriptor.h"

namespace zarn::test {

// A test that needs a second process begins with
//   if (ChildTest::Role() == "...") { ... std::exit(0); }
// and starts that role with a ChildTest object, whose end also ends the process.
class ChildTest {
 public:
  // Empty in the test itself.
  static std::string Role() { return Environment(kRole); }
  static std::string Argument() { return Environment(kArgument); }
  // The child's end of the socket to its parent.
  static int ParentChannel() { return std::stoi(Environment(kChannel)); }

  explicit ChildTest(const std::string& role, const std::string& argument = "") {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
      throw std::runtime_error("no socket pair");
    channel_.Reset(ends[0]);
    const keelbase::internal::FileDescriptor childEnd(ends[1]);
    errors_.Reset(::memfd_create("errors", MFD_CLOEXEC));
    Start(role, argument, childEnd.Get());
  }
  ~ChildTest() {
    if (process_ < 0) return;
    ::kill(process_, SIGKILL);
    Wait();
  }
  ChildTest(const ChildTest&) = delete;
  ChildTest& operator=(const ChildTest&) = delete;

  pid_t GetProcess() const { return process_; }
  int GetChannel() const { return channel_.Get(); }

  // Its exit code, or minus the signal that ended it.
  int Wait() {
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  // What it has written to standard error.
  std::string GetErrors() const {
    std::string text;
    char buffer[4096];
    ssize_t count;
    while ((count =
                ::pread(errors_.Get(), buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0)
      text.append(buffer, static_cast<std::size_t>(count));
    return text;
  }

 private:
  static constexpr char kRole[] = "ZARN_TEST_ROLE";
  static constexpr char kArgument[] = "ZARN_TEST_ARGUMENT";
  static constexpr char kChannel[] = "ZARN_TEST_CHANNEL";

  static std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
  }

  void Start(const std::string& role, const std::string& argument, int childEnd) {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    std::string name = "child";
    char* arguments[] = {name.data(), filter.data(), nullptr};
    std::vector<std::string> variables = {kRole + ("=" + role), kArgument + ("=" + argument),
                                          kChannel + ("=" + std::to_string(childEnd))};
    for (char** variable = ::environ; *variable != nullptr; ++variable) {
      if (!std::string_view(*variable).starts_with("GTEST_")) variables.emplace_back(*variable);
    }
    std::vector<char*> environment;
    for (std::string& variable : variables) environment.push_back(variable.data());
    environment.push_back(nullptr);
    process_ = ::fork();
    if (process_ < 0) throw std::runtime_error("no child process");
    if (process_ == 0) Execute(arguments, environment.data(), childEnd);
  }

  // Between fork and exec nothing may allocate: the parent has threads.
  [[noreturn]] void Execute(char* const* arguments, char* const* environment, int childEnd) const {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::fcntl(childEnd, F_SETFD, 0);
    ::dup2(errors_.Get(), STDERR_FILENO);
    ::dup2(errors_.Get(), STDOUT_FILENO);
    ::execve("/proc/self/exe", arguments, environment);
    ::_exit(127);
  }

  pid_t process_ = -1;
  keelbase::internal::FileDescriptor channel_;
  keelbase::internal::FileDescriptor errors_;
};

}  // namespace zarn::test
