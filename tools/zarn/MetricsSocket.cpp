// MetricsSocket.cpp - see MetricsSocket.h.
#include "MetricsSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "Descriptor.h"
#include "EndpointFiles.h"
#include "Interruption.h"
#include "MetricsAnswer.h"
#include "Root.h"

namespace zarn::tool {

namespace {

using MetricsClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kMetricsPause(100);

// Waits until there is something to read, or only waits (-1). False at the deadline.
bool WaitForMetrics(int fd, MetricsClock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - MetricsClock::now());
  if (left.count() <= 0 || IsInterrupted()) return false;
  pollfd ready{fd, POLLIN, 0};
  ::poll(&ready, 1, static_cast<int>(std::min<std::int64_t>(left.count(), 1000)));
  return true;
}

// 0 or an errno value.
int ConnectToMetrics(int fd, const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const Descriptor directory(
      ::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return errno;
  sockaddr_un address{};
  if (!NameInDirectory(directory.Get(), path.substr(slash + 1), address)) return ENAMETOOLONG;
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  return ::connect(fd, name, sizeof address) == 0 ? 0 : errno;
}

const char* WhyNobodyAnswers(pid_t process) {
  if (::kill(process, 0) != 0 && errno == ESRCH) return "there is no such process";
  return "it does not show its metrics (it must call ZARNEnableMetrics)";
}

std::string ReadMetrics(int fd, MetricsClock::time_point deadline, std::string& answer) {
  char part[65536];
  for (;;) {
    const ssize_t count = ::recv(fd, part, sizeof part, MSG_DONTWAIT);
    if (count == 0) return {};
    if (count > 0) answer.append(part, static_cast<std::size_t>(count));
    if (answer.size() > kMaxAnswer) return "its answer is too long";
    if (count < 0 && errno != EAGAIN && errno != EINTR) return std::strerror(errno);
    if (count < 0 && !WaitForMetrics(fd, deadline)) return "it does not answer";
    if (MetricsClock::now() >= deadline) return "it does not answer";
  }
}

}  // namespace

// One who asks too often is turned away without a word, and asks again.
std::string AskForMetrics(pid_t process, MetricsClock::time_point deadline, std::string& answer) {
  const std::string path = GetEndpointDirectory("stat") + "/" + std::to_string(process);
  for (;;) {
    const Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) return std::strerror(errno);
    const int error = ConnectToMetrics(fd.Get(), path);
    if (error == ECONNREFUSED || error == ENOENT) return WhyNobodyAnswers(process);
    if (error != 0 && error != EAGAIN) return std::strerror(error);
    answer.clear();
    if (error == 0) {
      std::string problem = ReadMetrics(fd.Get(), deadline, answer);
      if (!problem.empty() || !answer.empty()) return problem;
    }
    if (!WaitForMetrics(-1, std::min(deadline, MetricsClock::now() + kMetricsPause)))
      return "it turns us away";
    if (MetricsClock::now() >= deadline) return "it turns us away";
  }
}

}  // namespace zarn::tool
