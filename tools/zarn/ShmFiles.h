// ShmFiles.h - the files of the named memory segments of an install root.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace zarn::tool {

struct ShmSegment {
  std::string name;
  std::string path;
  struct stat status {};
  std::vector<pid_t> processes;  // that have it mapped, as far as we are allowed to see

  std::uint64_t GetSize() const;  // of the memory
};

// Empty without a good install root.
std::string GetShmDirectory();

// Sorted by name. Fails with an errno value; a directory that does not exist holds none.
int ScanSegments(std::vector<ShmSegment>& segments);

// Fails with an errno value.
int FindSegment(const std::string& name, ShmSegment& segment);

// Adds those who have them mapped. Fails with an errno value; there may be more of them then.
int FindProcesses(std::span<ShmSegment> segments);

}  // namespace zarn::tool
