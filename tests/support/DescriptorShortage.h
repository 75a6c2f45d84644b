// DescriptorShortage.h - counts file descriptors, and takes all that the process may have.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <vector>

#include "keelbase/internal/FileDescriptor.h"

namespace zarn::test {

inline std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator first("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(first, std::filesystem::directory_iterator()));
}

// As long as it lives, whatever needs a new descriptor fails with EMFILE.
class DescriptorShortage {
 public:
  DescriptorShortage() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    rlimit low = before_;
    low.rlim_cur = static_cast<rlim_t>(descriptor) + 16;
    ::setrlimit(RLIMIT_NOFILE, &low);
    while (descriptor >= 0) {
      taken_.emplace_back(descriptor);
      descriptor = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    }
  }
  ~DescriptorShortage() {
    taken_.clear();
    ::setrlimit(RLIMIT_NOFILE, &before_);
  }
  DescriptorShortage(const DescriptorShortage&) = delete;
  DescriptorShortage& operator=(const DescriptorShortage&) = delete;

 private:
  rlimit before_{};
  std::vector<keelbase::internal::FileDescriptor> taken_;
};

}  // namespace zarn::test
