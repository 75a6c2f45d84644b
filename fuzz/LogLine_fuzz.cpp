// LogLine_fuzz.cpp - log files, lines and times, from anywhere.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "../tools/zarn/LogLine.h"

namespace {

using zarn::tool::LogLine;

void Check(bool condition) {
  if (!condition) std::abort();
}

bool IsWithin(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

std::string Pad(std::string_view text, std::size_t width) {
  return std::string(text) + std::string(width - std::min(width, text.size()), ' ');
}

// The line as the logger would write it from its fields.
std::string Compose(const LogLine& line) {
  std::string text = std::string(line.timeText) + " | " + Pad(line.level, 8) + " | ";
  if (!line.number.empty())
    text += std::string(line.file) + "[" + std::string(line.number) + "] | ";
  return text + Pad(line.function, 18) + " | " + std::string(line.message);
}

void CheckLine(std::string_view text) {
  LogLine line;
  if (!zarn::tool::ParseLogLine(text, line)) return;
  for (const std::string_view part :
       {line.timeText, line.level, line.file, line.number, line.function, line.message})
    Check(IsWithin(part, text));
  LogLine again;
  const std::string composed = Compose(line);
  Check(zarn::tool::ParseLogLine(composed, again));
  Check(again.time == line.time && again.level == line.level && again.file == line.file &&
        again.number == line.number && again.function == line.function &&
        again.message == line.message);
  const auto asked = zarn::tool::ParseTimeOption(line.timeText, 0);
  Check(asked && *asked == line.time);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  zarn::tool::ParseTimeOption(input, 1706688902004711);
  while (!input.empty()) {
    const std::size_t end = std::min(input.find('\n'), input.size());
    CheckLine(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
  }
  return 0;
}
