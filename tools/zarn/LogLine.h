// LogLine.h - the fields of a log line, and the times that one can ask for.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace zarn::tool {

using Micros = std::int64_t;  // since 1970, UTC

// Views of the line that was parsed, without the blanks that fill the columns.
struct LogLine {
  Micros time = 0;
  std::string_view timeText;
  std::string_view level;
  std::string_view file;  // empty, as is the number, for a line without them
  std::string_view number;
  std::string_view function;
  std::string_view message;
};

// Reads a line without its newline:
//   2024-01-31T08:15:02.004711 | DEBUG    |           z.cpp[00042] | Run                | message
//   2024-01-31T08:15:02.004711 | INFO     | main               | message
// Columns may have any width. False for anything else; `line` is then unspecified.
bool ParseLogLine(std::string_view text, LogLine& line);

// Only the time, which costs less.
bool ParseLogTime(std::string_view text, Micros& time);

// A time as a person writes it: "2024-01-31", with "T08:15", "T08:15:02" or "T08:15:02.5" behind it
// (a blank does for the T), or how long ago: "90s", "10m", "2 h ago", "1 day ago", "now".
std::optional<Micros> ParseTimeOption(std::string_view text, Micros now);

}  // namespace zarn::tool
