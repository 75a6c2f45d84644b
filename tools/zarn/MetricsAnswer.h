// MetricsAnswer.h - what a process that shows its metrics has sent, taken apart.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zarn/utils/CZARNMetrics.h"

namespace zarn::tool {

inline constexpr std::size_t kMaxAnswer = std::size_t{32} << 20;  // bytes

struct ProcessMetrics {
  pid_t process = 0;          // the one that was asked, whatever it says of itself
  std::string program;        // that one's, too
  std::uint64_t omitted = 0;  // streams that were left out
  utils::CZARNMetrics metrics;
};

// Fills in `omitted` and `metrics` from the text of a whole answer, which may be anything; says
// what is wrong with it, else nothing. Takes a bounded multiple of the text's memory.
std::string ParseMetrics(std::string_view text, ProcessMetrics& process);

}  // namespace zarn::tool
