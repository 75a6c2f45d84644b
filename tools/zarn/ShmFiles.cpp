// ShmFiles.cpp - see ShmFiles.h.
#include "ShmFiles.h"

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

// Reads no file of another user's process.
void AddProcesses(std::vector<ShmSegment>& segments) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string number = entry.path().filename().string();
    pid_t process = 0;
    const char* end = number.data() + number.size();
    if (std::from_chars(number.data(), end, process).ptr != end || process <= 0) continue;
    std::ifstream maps(entry.path().string() + "/maps");
    for (std::string line; std::getline(maps, line);) {
      for (ShmSegment& segment : segments) {
        const bool known = !segment.processes.empty() && segment.processes.back() == process;
        if (!known && line.ends_with(" " + segment.path)) segment.processes.push_back(process);
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
