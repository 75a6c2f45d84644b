// ShmFiles.cpp - see ShmFiles.h.
#include "ShmFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "Descriptor.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::tool {

namespace {

constexpr const char* kShmDirectory = "/zarn/shm/zarnshmm";  // below the system directory
constexpr std::string_view kShmPrefix = "zarn_shm_";
constexpr std::uint64_t kAdministration = 4096;  // bytes of the file before the memory

// What the kernel says of a segment in the list of a process's mappings: "... major:minor inode
// path", with a newline in the path as \012. Some file systems tell another device there than in
// the status of the file, and a path may be seen from another root, so either of them counts.
struct MappedSegment {
  explicit MappedSegment(ShmSegment& mapped) : segment(&mapped) {
    const struct stat& status = mapped.status;
    file = fmt::format(" {:02x}:{:02x} {} ", major(status.st_dev), minor(status.st_dev),
                       status.st_ino);
    std::error_code error;
    path = ' ' + std::filesystem::canonical(mapped.path, error).string();
    for (std::size_t at = 0; (at = path.find('\n', at)) != std::string::npos;)
      path.replace(at, 1, "\\012");
  }

  bool IsIn(std::string_view line) const {
    return line.substr(0, line.find('/')).find(file) != std::string_view::npos ||
           (path.size() > 1 && line.ends_with(path));
  }

  ShmSegment* segment;
  std::string file;
  std::string path;
};

// Fails with an errno value; what was read before that is in the text.
int ReadAll(const std::string& path, std::string& text) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return errno;
  char buffer[65536];
  ssize_t count = 0;
  while ((count = ::read(file.Get(), buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<std::size_t>(count));
  return count < 0 ? errno : 0;
}

// Another user's process, or one that has ended meanwhile.
bool IsOutOfSight(int error) {
  return error == EACCES || error == EPERM || error == ENOENT || error == ESRCH;
}

// Fails with an errno value.
int LookAtProcess(pid_t process, const std::vector<MappedSegment>& mapped) {
  std::string text;
  const int error = ReadAll(fmt::format("/proc/{}/maps", process), text);
  std::istringstream maps(std::move(text));
  for (std::string line; std::getline(maps, line);) {
    for (const MappedSegment& each : mapped) {
      std::vector<pid_t>& processes = each.segment->processes;
      const bool known = !processes.empty() && processes.back() == process;
      if (!known && each.IsIn(line)) processes.push_back(process);
    }
  }
  return IsOutOfSight(error) ? 0 : error;
}

}  // namespace

std::uint64_t ShmSegment::GetSize() const {
  const auto size = static_cast<std::uint64_t>(status.st_size);
  return size > kAdministration ? size - kAdministration : 0;
}

std::string GetShmDirectory() {
  const std::string system = utils::GetZARNRootSystem();
  return system.empty() ? system : system + kShmDirectory;
}

int ScanSegments(std::vector<ShmSegment>& segments) {
  std::error_code error;
  for (std::filesystem::directory_iterator at(GetShmDirectory(), error), end; !error && at != end;
       at.increment(error)) {
    const std::string file = at->path().filename().string();
    ShmSegment segment{
        file.substr(std::min(file.size(), kShmPrefix.size())), at->path().string(), {}, {}};
    if (file.starts_with(kShmPrefix) && ::lstat(segment.path.c_str(), &segment.status) == 0 &&
        S_ISREG(segment.status.st_mode))
      segments.push_back(segment);
  }
  if (error && error.value() != ENOENT) return error.value();
  std::sort(segments.begin(), segments.end(),
            [](const ShmSegment& a, const ShmSegment& b) { return a.name < b.name; });
  return 0;
}

int FindSegment(const std::string& name, ShmSegment& segment) {
  segment.name = name;
  segment.path = GetShmDirectory() + "/" + std::string(kShmPrefix) + name;
  if (::lstat(segment.path.c_str(), &segment.status) != 0) return errno;
  return S_ISREG(segment.status.st_mode) ? 0 : EINVAL;
}

int FindProcesses(std::span<ShmSegment> segments) {
  const std::vector<MappedSegment> mapped(segments.begin(), segments.end());
  std::error_code error;
  int unread = 0;
  for (std::filesystem::directory_iterator at("/proc", error), end;
       !error && unread == 0 && at != end; at.increment(error)) {
    const std::string number = at->path().filename().string();
    pid_t process = 0;
    std::from_chars(number.data(), number.data() + number.size(), process);
    if (process > 0) unread = LookAtProcess(process, mapped);
  }
  return error ? error.value() : unread;
}

}  // namespace zarn::tool
