// OpenDescriptors.h - how many descriptors this process has open.
#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace zarn::test {

// With the one that looks.
inline std::ptrdiff_t CountOpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
}

}  // namespace zarn::test
