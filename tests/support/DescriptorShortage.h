// DescriptorShortage.h - takes all file descriptors that the process may have.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>

#include <vector>

#include "keelbase/internal/FileDescriptor.h"

namespace zarn::test {

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
