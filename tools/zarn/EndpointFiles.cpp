// EndpointFiles.cpp - see EndpointFiles.h.
#include "EndpointFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include "Descriptor.h"
#include "Endpoint.h"
#include "Escape.h"
#include "Root.h"
#include "SocketOwners.h"

namespace zarn::tool {

namespace {

// A socket of the wrong type is told apart from no listener, and a listener notices nothing of it.
EndpointState Probe(int directory, const std::string& name) {
  sockaddr_un address{};
  const Descriptor probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe || !NameInDirectory(directory, name, address)) return EndpointState::unknown;
  const int result =
      ::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (result == 0 || errno == EPROTOTYPE) return EndpointState::listening;
  return errno == ECONNREFUSED ? EndpointState::stale : EndpointState::unknown;
}

bool IsNamedRightly(const EndpointFile& file) {
  if (file.scheme == "stat") return ParseProcess(file.name).has_value();
  return ParsePair(file.name).has_value();
}

// False when there is no such file any more.
bool Examine(int directory, EndpointFile& file) {
  if (::fstatat(directory, file.name.c_str(), &file.status, AT_SYMLINK_NOFOLLOW) != 0) return false;
  const bool endpoint = S_ISSOCK(file.status.st_mode) && IsNamedRightly(file);
  file.state = endpoint ? Probe(directory, file.name) : EndpointState::foreign;
  return true;
}

void SortByNumber(std::vector<EndpointFile>& files) {
  const auto key = [](const EndpointFile& file) {
    const auto pair = ParsePair(file.name);
    const pid_t process = ParseProcess(file.name).value_or(0);
    return std::tuple(!pair, pair ? pair->first : 0, pair ? pair->second : 0, process, file.name);
  };
  std::sort(files.begin(), files.end(),
            [&](const EndpointFile& a, const EndpointFile& b) { return key(a) < key(b); });
}

int LockDirectory(int directory) {
  constexpr int kAttempts = 200;
  for (int attempt = 0; ::flock(directory, LOCK_EX | LOCK_NB) != 0; ++attempt) {
    if (errno != EWOULDBLOCK) return errno;
    if (attempt == kAttempts) return EBUSY;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return 0;
}

}  // namespace

const char* ToText(EndpointState state) {
  switch (state) {
    case EndpointState::listening:
      return "listening";
    case EndpointState::stale:
      return "stale";
    case EndpointState::foreign:
      return "foreign";
    case EndpointState::removed:
      return "removed";
    case EndpointState::unknown:
      break;
  }
  return "unknown";
}

std::optional<pid_t> ParseProcess(std::string_view text) {
  pid_t process = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), process);
  const bool good = error == std::errc() && end == text.data() + text.size() && process > 0;
  return good && text[0] != '0' ? std::optional(process) : std::nullopt;
}

int ScanEndpoints(const std::string& scheme, std::vector<EndpointFile>& files) {
  const std::string directory = GetEndpointDirectory(scheme);
  const Descriptor open(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!open) return errno == ENOENT ? 0 : errno;
  std::error_code error;
  for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
       at.increment(error)) {
    EndpointFile file;
    file.name = at->path().filename().string();
    file.path = at->path().string();
    file.scheme = scheme;
    if (Examine(open.Get(), file)) files.push_back(std::move(file));
  }
  if (error) return error.value();
  SortByNumber(files);
  FindOwners(files);
  return 0;
}

int RemoveStale(const std::string& scheme, std::vector<EndpointFile>& files) {
  const auto removable = [](const EndpointFile& file) {
    return file.state == EndpointState::stale && file.status.st_uid == ::geteuid();
  };
  if (std::none_of(files.begin(), files.end(), removable)) return 0;
  const std::string directory = GetEndpointDirectory(scheme);
  const Descriptor open(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!open) return errno;
  if (const int error = LockDirectory(open.Get()); error != 0) return error;
  for (EndpointFile& file : files) {
    if (!removable(file) || !Examine(open.Get(), file) || !removable(file)) continue;
    if (::unlinkat(open.Get(), file.name.c_str(), 0) != 0) return errno;
    file.state = EndpointState::removed;
  }
  return 0;
}

bool IsSocketFile(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

bool NameInDirectory(int directory, const std::string& name, sockaddr_un& out) {
  const std::string path = fmt::format("/proc/self/fd/{}/{}", directory, name);
  if (path.size() >= sizeof out.sun_path) return false;
  out = {};
  out.sun_family = AF_UNIX;
  std::memcpy(out.sun_path, path.c_str(), path.size());
  return true;
}

std::string GetUserName(uid_t user) {
  char buffer[4096];
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(user, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
    return found->pw_name;
  return std::to_string(user);
}

std::string GetProgramName(pid_t process) {
  if (process <= 0) return {};
  const std::string proc = "/proc/" + std::to_string(process);
  std::error_code error;
  const auto executable = std::filesystem::read_symlink(proc + "/exe", error);
  if (!error) return executable.filename().string();
  std::string name;  // the kernel's short name, which everybody may see
  std::getline(std::ifstream(proc + "/comm"), name);
  return name;
}

pid_t FindOwner(const std::string& path) {
  std::vector<EndpointFile> files(1);
  if (::lstat(path.c_str(), &files[0].status) != 0) return 0;
  files[0].state = EndpointState::listening;
  FindOwners(files);
  return files[0].process;
}

std::string DescribeOwner(const std::string& path) {
  const pid_t process = FindOwner(path);
  if (process == 0) return "another process";
  return fmt::format("process {} ({})", process, Escape(GetProgramName(process)));
}

}  // namespace zarn::tool
