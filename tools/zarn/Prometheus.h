// Prometheus.h - metrics in the text format that Prometheus reads.
#pragma once

#include <string>
#include <vector>

#include "MetricsAnswer.h"

namespace zarn::tool {

// One family of samples for each number, each sample labelled with its process and stream.
std::string ToPrometheus(const std::vector<ProcessMetrics>& processes);

}  // namespace zarn::tool
