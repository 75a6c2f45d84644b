// MetricsJson.h - a snapshot as the text that zarn stat is sent.
#pragma once

#include <string>

#include "zarn/utils/CZARNMetrics.h"

namespace zarn::utils {

// What stands in one answer at most; the rest is counted and left out.
inline constexpr std::size_t kMostStreamsShown = 4096;

// One JSON object in ASCII, with a newline behind it; docs/metrics.md has its form.
std::string ToJson(CZARNMetrics metrics);

}  // namespace zarn::utils
