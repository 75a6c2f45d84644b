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

// As long as it lives, the process may have no descriptor of this number or above.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit low = before_;
    low.rlim_cur = limit;
    ::setrlimit(RLIMIT_NOFILE, &low);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before_{};
};

// As long as it lives, whatever needs a new descriptor fails with EMFILE.
class DescriptorShortage {
 public:
  DescriptorShortage() : DescriptorShortage(::open("/dev/null", O_RDONLY | O_CLOEXEC)) {}

 private:
  explicit DescriptorShortage(int descriptor) : limit_(static_cast<rlim_t>(descriptor) + 16) {
    while (descriptor >= 0) {
      taken_.emplace_back(descriptor);
      descriptor = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    }
  }

  const DescriptorLimit limit_;
  std::vector<keelbase::internal::FileDescriptor> taken_;
};

}  // namespace zarn::test
