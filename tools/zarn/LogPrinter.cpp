// LogPrinter.cpp - see LogPrinter.h.
#include "LogPrinter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>

namespace zarn::tool {

namespace {

constexpr std::string_view kNotInFormat = "? ";
constexpr std::string_view kPlain = "\x1b[0m";
constexpr std::string_view kFaint = "\x1b[2m";
constexpr std::string_view kCyan = "\x1b[36m";
constexpr std::string_view kMagenta = "\x1b[35m";

std::string_view ColourOfLevel(std::string_view level) {
  if (level == "ERROR" || level == "FATAL") return "\x1b[1;31m";
  if (level == "WARN" || level == "WARNING") return "\x1b[33m";
  if (level == "DEBUG") return kFaint;
  return {};
}

std::string Coloured(std::string_view text, std::string_view colour) {
  if (colour.empty()) return std::string(text);
  return std::string(colour).append(text).append(kPlain);
}

bool WantsColours() {
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return (refused == nullptr || *refused == '\0') &&
         (terminal == nullptr || std::string_view(terminal) != "dumb");
}

std::string ShortName(const std::string& path) {
  return std::filesystem::path(path).filename().replace_extension().string();
}

// A time as in the line; null without one.
Json::Value ToJson(std::string_view text) {
  return text.empty() ? Json::Value() : Json::Value(Escape(text));
}

}  // namespace

LogPrinter::LogPrinter(Output& output, bool names)
    : output_(output),
      names_(names),
      terminal_(::isatty(STDOUT_FILENO) == 1),
      colours_(terminal_ && WantsColours()) {}

void LogPrinter::SetPaths(const std::vector<std::string>& paths) {
  prefixes_.clear();
  if (!names_ || paths.size() < 2) return;
  std::set<std::string> unique;
  for (const std::string& path : paths) unique.insert(ShortName(path));
  std::size_t width = 0;
  for (const std::string& path : paths) {
    std::string& name = prefixes_[path];
    name = Escape(unique.size() == paths.size() ? ShortName(path) : path);
    width = std::max(width, name.size());
  }
  for (auto& [path, name] : prefixes_) {
    name.resize(width, ' ');
    name = Coloured(name, colours_ ? kCyan : std::string_view()) + " | ";
  }
}

void LogPrinter::Print(const std::string& path, const LogRecord& record) {
  if (output_.IsJson()) return PrintObject(path, record);
  const auto prefix = prefixes_.find(path);
  const std::string_view name = prefix != prefixes_.end() ? prefix->second : std::string_view();
  const bool plain = !terminal_ || IsPrintable(record.text);
  if (colours_ && record.inFormat && plain) return output_.Text("{}{}", name, Decorate(record));
  const std::string mark = Coloured(kNotInFormat, colours_ ? kMagenta : std::string_view());
  const std::string_view shownMark = record.inFormat ? std::string_view() : mark;
  if (plain)
    output_.Text("{}{}{}", name, shownMark, record.text);
  else
    output_.Text("{}{}{}", name, shownMark, Escape(record.text));
}

std::string LogPrinter::Decorate(const LogRecord& record) const {
  const LogLine& line = record.line;
  const auto level = static_cast<std::size_t>(line.level.data() - record.text.data());
  const std::size_t time = line.timeText.size();
  return Coloured(line.timeText, kFaint)
      .append(record.text.substr(time, level - time))
      .append(Coloured(line.level, ColourOfLevel(line.level)))
      .append(record.text.substr(level + line.level.size()));
}

void LogPrinter::PrintObject(const std::string& path, const LogRecord& record) {
  Json::Value object;
  object["event"] = record.inFormat ? "line" : "other";
  object["log"] = Escape(path);
  object["text"] = Escape(record.inFormat ? record.line.message : record.text);
  if (record.inFormat) {
    const LogLine& line = record.line;
    object["time"] = ToJson(line.timeText);
    object["level"] = Escape(line.level);
    object["function"] = Escape(line.function);
    object["file"] = ToJson(line.file);
    object["line"] = line.number.empty()
                         ? Json::Value()
                         : Json::Value(Json::Int64(std::atoll(std::string(line.number).c_str())));
  }
  output_.Object(object);
}

void LogPrinter::PrintRestart(const std::string& path) {
  if (!output_.IsJson()) return Complain("'{}' was begun anew", Escape(path));
  Json::Value object;
  object["event"] = "restart";
  object["log"] = Escape(path);
  output_.Object(object);
}

}  // namespace zarn::tool
