// MetricsJson.h - a snapshot as the text that zarn stat is sent.
#pragma once

#include <string>

#include "zarn/utils/CZARNMetrics.h"

namespace zarn::utils {

// What stands in one answer at most; the rest is counted and left out.
inline constexpr std::size_t kMaxStreamsShown = 4096;

// JSON objects in ASCII, one a line: about the process, then for each stream. docs/metrics.md has
// their form.
std::string ToJson(CZARNMetrics metrics);

}  // namespace zarn::utils
