// LogText.cpp - see LogText.h.
#include "LogText.h"

#include <charconv>
#include <ctime>

namespace zarn::utils {

namespace {

constexpr std::string_view kSeparator = " | ";
constexpr std::size_t kLevelWidth = 8;

std::string_view ToView(const char* text) { return text != nullptr ? text : "(null)"; }

// The seconds as text, in UTC. Lines come many in a second, and breaking it down costs more than
// all the rest of a short line.
std::string_view FormatSeconds(std::time_t seconds) {
  struct Formatted {
    std::time_t seconds;
    std::size_t size;  // 0: nothing formatted yet
    char text[64];
  };
  static thread_local Formatted last{0, 0, {}};
  if (last.size == 0 || last.seconds != seconds) {
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    last.seconds = seconds;
    last.size = std::strftime(last.text, sizeof last.text, "%Y-%m-%dT%H:%M:%S", &utc);
  }
  return {last.text, last.size};
}

template <class Text>
void AppendLeft(Text& text, std::string_view value, std::size_t width) {
  text.Append(value);
  if (value.size() < width) text.Fill(width - value.size(), ' ');
}

template <class Text>
void AppendRight(Text& text, std::string_view value, std::size_t width) {
  if (value.size() < width) text.Fill(width - value.size(), ' ');
  text.Append(value);
}

// At least `width` characters, sign included, with zeros in front.
template <class Text>
void AppendNumber(Text& text, long value, std::size_t width) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value < 0 ? -value : value);
  const auto count = static_cast<std::size_t>(end.ptr - digits);
  if (value < 0) {
    text.Append("-");
    --width;
  }
  if (count < width) text.Fill(width - count, '0');
  text.Append({digits, count});
}

}  // namespace

template <class Text>
void Compose(const LogFields& fields, Text& text) {
  text.Append(FormatSeconds(fields.time.tv_sec));
  text.Append(".");
  AppendNumber(text, fields.time.tv_usec, 6);
  text.Append(kSeparator);
  AppendLeft(text, ToView(fields.level), kLevelWidth);
  text.Append(kSeparator);
  if (fields.file != nullptr) {
    const std::string_view path = fields.file;
    AppendRight(text, path.substr(path.rfind('/') + 1), fields.filenameWidth);
    text.Append("[");
    AppendNumber(text, fields.line, 5);
    text.Append("]");
    text.Append(kSeparator);
  }
  AppendLeft(text, ToView(fields.function), fields.functionWidth);
  text.Append(kSeparator);
  text.Append(ToView(fields.format));
  text.Append("\n");
}

template void Compose(const LogFields& fields, CutText& text);
template void Compose(const LogFields& fields, WholeText& text);

}  // namespace zarn::utils
