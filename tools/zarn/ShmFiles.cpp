// ShmFiles.cpp - see ShmFiles.h.
#include "ShmFiles.h"

#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <system_error>

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

// Reads no file of another user's process.
void AddProcesses(std::vector<ShmSegment>& segments) {
  const std::vector<MappedSegment> mapped(segments.begin(), segments.end());
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string number = entry.path().filename().string();
    pid_t process = 0;
    const char* end = number.data() + number.size();
    if (std::from_chars(number.data(), end, process).ptr != end || process <= 0) continue;
    std::ifstream maps(entry.path().string() + "/maps");
    for (std::string line; std::getline(maps, line);) {
      for (const MappedSegment& each : mapped) {
        std::vector<pid_t>& processes = each.segment->processes;
        const bool known = !processes.empty() && processes.back() == process;
        if (!known && each.IsIn(line)) processes.push_back(process);
      }
    }
  }
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
  for (const auto& entry : std::filesystem::directory_iterator(GetShmDirectory(), error)) {
    const std::string file = entry.path().filename().string();
    ShmSegment segment{
        file.substr(std::min(file.size(), kShmPrefix.size())), entry.path().string(), {}, {}};
    if (file.starts_with(kShmPrefix) && ::lstat(segment.path.c_str(), &segment.status) == 0 &&
        S_ISREG(segment.status.st_mode))
      segments.push_back(segment);
  }
  if (error && error.value() != ENOENT) return error.value();
  std::sort(segments.begin(), segments.end(),
            [](const ShmSegment& a, const ShmSegment& b) { return a.name < b.name; });
  AddProcesses(segments);
  return 0;
}

int FindSegment(const std::string& name, ShmSegment& segment) {
  std::vector<ShmSegment> segments(1);
  segments[0].name = name;
  segments[0].path = GetShmDirectory() + "/" + std::string(kShmPrefix) + name;
  if (::lstat(segments[0].path.c_str(), &segments[0].status) != 0) return errno;
  if (!S_ISREG(segments[0].status.st_mode)) return EINVAL;
  AddProcesses(segments);
  segment = segments[0];
  return 0;
}

}  // namespace zarn::tool
