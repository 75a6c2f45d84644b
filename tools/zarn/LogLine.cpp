// LogLine.cpp - see LogLine.h. Needs nothing of the rest of the program.
#include "LogLine.h"

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace zarn::tool {

namespace {

constexpr std::string_view kLogSeparator = " | ";
constexpr std::size_t kSecondsSize = 19;  // 2024-01-31T08:15:02
constexpr std::size_t kLogTimeSize = 26;  // and .004711
constexpr Micros kSecond = 1000000;

bool IsDecimal(char c) { return c >= '0' && c <= '9'; }

bool AreDecimal(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsDecimal);
}

int ToInt(std::string_view digits) {
  int number = 0;
  for (const char digit : digits) number = number * 10 + (digit - '0');
  return number;
}

// Whether each character of `text` is a digit where the pattern has a 0, and else the same.
bool Matches(std::string_view text, std::string_view pattern) {
  if (text.size() != pattern.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i)
    if (pattern[i] == '0' ? !IsDecimal(text[i]) : text[i] != pattern[i]) return false;
  return true;
}

// "2024-01-31T08:15:02", shape already known to be good.
std::optional<Micros> ToMicros(std::string_view text) {
  using namespace std::chrono;
  const year_month_day date(year(ToInt(text.substr(0, 4))),
                            month(static_cast<unsigned>(ToInt(text.substr(5, 2)))),
                            day(static_cast<unsigned>(ToInt(text.substr(8, 2)))));
  const int hour = ToInt(text.substr(11, 2));
  const int minute = ToInt(text.substr(14, 2));
  const int second = ToInt(text.substr(17, 2));
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const Micros days = sys_days(date).time_since_epoch().count();
  return (((days * 24 + hour) * 60 + minute) * 60 + second) * kSecond;
}

std::string_view TrimBlanks(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

// Takes what stands before the next separator, and that. Columns are full of blanks, so it looks
// for the bar.
bool TakeField(std::string_view& rest, std::string_view& field) {
  for (std::size_t bar = rest.find('|'); bar != std::string_view::npos;
       bar = rest.find('|', bar + 1)) {
    if (bar == 0 || rest.substr(bar - 1, kLogSeparator.size()) != kLogSeparator) continue;
    field = TrimBlanks(rest.substr(0, bar - 1));
    rest.remove_prefix(bar - 1 + kLogSeparator.size());
    return true;
  }
  return false;
}

// "z.cpp[00042]"
bool SplitPlace(std::string_view field, LogLine& line) {
  if (field.empty() || field.back() != ']') return false;
  const std::size_t open = field.rfind('[');
  if (open == std::string_view::npos) return false;
  std::string_view number = field.substr(open + 1, field.size() - open - 2);
  if (number.size() < 5) return false;
  line.number = number;
  if (number[0] == '-') number.remove_prefix(1);
  if (!AreDecimal(number)) return false;
  line.file = TrimBlanks(field.substr(0, open));
  return true;
}

// How long a unit is; 0 for none.
Micros UnitOf(std::string_view name) {
  struct Unit {
    std::string_view name;
    Micros length;
  };
  constexpr Unit kUnits[] = {
      {"s", kSecond},           {"sec", kSecond},         {"second", kSecond},
      {"m", 60 * kSecond},      {"min", 60 * kSecond},    {"minute", 60 * kSecond},
      {"h", 3600 * kSecond},    {"hour", 3600 * kSecond}, {"d", 86400 * kSecond},
      {"day", 86400 * kSecond}, {"w", 604800 * kSecond},  {"week", 604800 * kSecond}};
  if (name.size() > 1 && name.back() == 's') name.remove_suffix(1);
  for (const Unit& unit : kUnits)
    if (unit.name == name) return unit.length;
  return 0;
}

// "10m", "10 min ago"
std::optional<Micros> ParseAge(std::string_view text) {
  constexpr std::string_view kAgo = " ago";
  if (text.ends_with(kAgo)) text.remove_suffix(kAgo.size());
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  if (digits == 0 || digits > 6) return std::nullopt;
  const Micros unit = UnitOf(TrimBlanks(text.substr(digits)));
  if (unit == 0) return std::nullopt;
  return ToInt(text.substr(0, digits)) * unit;
}

}  // namespace

bool ParseLogTime(std::string_view text, Micros& time) {
  if (text.size() < kLogTimeSize || text[10] != 'T' ||
      !Matches(text.substr(0, kLogTimeSize), "0000-00-00T00:00:00.000000"))
    return false;
  const std::optional<Micros> seconds = ToMicros(text);
  if (!seconds) return false;
  time = *seconds + ToInt(text.substr(kSecondsSize + 1, 6));
  return true;
}

bool ParseLogLine(std::string_view text, LogLine& line) {
  if (!ParseLogTime(text, line.time)) return false;
  line.timeText = text.substr(0, kLogTimeSize);
  text.remove_prefix(kLogTimeSize);
  if (!text.starts_with(kLogSeparator)) return false;
  text.remove_prefix(kLogSeparator.size());
  std::string_view field;
  if (!TakeField(text, line.level) || !TakeField(text, field)) return false;
  line.file = line.number = {};
  if (SplitPlace(field, line)) {
    if (!TakeField(text, field)) return false;
  } else {
    line.file = line.number = {};
  }
  line.function = field;
  line.message = text;
  return true;
}

std::optional<Micros> ParseTimeOption(std::string_view text, Micros now) {
  text = TrimBlanks(text);
  if (text == "now") return now;
  if (const std::optional<Micros> age = ParseAge(text)) return now - *age;
  if (text.ends_with('Z')) text.remove_suffix(1);
  char full[] = "0000-00-00T00:00:00";
  std::string_view seconds = text.substr(0, std::min(text.size(), kSecondsSize));
  std::copy(seconds.begin(), seconds.end(), full);
  if (full[10] == ' ') full[10] = 'T';
  if ((seconds.size() != 10 && seconds.size() != 16 && seconds.size() != 19) ||
      !Matches(full, "0000-00-00T00:00:00"))
    return std::nullopt;
  std::optional<Micros> time = ToMicros(full);
  std::string_view fraction = text.substr(seconds.size());
  if (!time || fraction.empty()) return time;
  if (fraction[0] != '.' || fraction.size() > 7 || !AreDecimal(fraction.substr(1)))
    return std::nullopt;
  Micros micros = ToInt(fraction.substr(1));
  for (std::size_t i = fraction.size(); i < 7; ++i) micros *= 10;
  return *time + micros;
}

}  // namespace zarn::tool
