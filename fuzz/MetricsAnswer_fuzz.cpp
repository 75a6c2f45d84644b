// MetricsAnswer_fuzz.cpp - what zarn stat is sent, by anybody, and what it prints of it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "../tools/zarn/MetricsAnswer.h"
#include "../tools/zarn/Prometheus.h"
#include "MetricsJson.h"

namespace {

using zarn::tool::ProcessMetrics;

void Check(bool condition) {
  if (!condition) std::abort();
}

// Nothing that was sent may add a line of its own or leave its quotes.
void CheckPrometheus(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    Check(end != std::string_view::npos);
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    Check(line.rfind("# HELP zarn_", 0) == 0 || line.rfind("# TYPE zarn_", 0) == 0 ||
          line.rfind("zarn_", 0) == 0);
    if (line[0] == '#') continue;
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (quoted && line[i] == '\\') {
        ++i;
        Check(i < line.size() && (line[i] == '\\' || line[i] == '"'));
      } else if (line[i] == '"') {
        quoted = !quoted;
      }
    }
    Check(!quoted);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ProcessMetrics process;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!zarn::tool::ParseMetrics(text, process).empty()) return 0;
  CheckPrometheus(zarn::tool::ToPrometheus({process}));
  if (size > 2000) return 0;  // names may grow beyond a line when they are written again
  ProcessMetrics again;
  Check(zarn::tool::ParseMetrics(zarn::utils::ToJson(process.metrics), again).empty());
  Check(again.metrics.streams.size() == process.metrics.streams.size());
  return 0;
}
