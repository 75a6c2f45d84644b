// LogFilter.cpp - see LogFilter.h.
#include "LogFilter.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace zarn::tool {

namespace {

constexpr const char* kMetacharacters = "\\^$.[]|()?*+{}";
constexpr std::size_t kLongLine = 1024;
constexpr std::ptrdiff_t kMaxAnyBytes = 8;  // '.', or what begins with "[^"

// The longest text that is in everything that the expression matches; found only in simple ones.
std::string FindNeededText(std::string_view expression) {
  if (expression.find_first_of("\\[]|(){}") != std::string_view::npos) return {};
  std::string_view longest;
  while (!expression.empty()) {
    const std::size_t end = std::min(expression.find_first_of(kMetacharacters), expression.size());
    std::string_view text = expression.substr(0, end);
    const std::size_t behind =
        std::min(expression.find_first_not_of("*?+", end), expression.size());
    const bool optional =
        expression.substr(end, behind - end).find_first_of("*?") != std::string_view::npos;
    if (optional && !text.empty()) text.remove_suffix(1);
    if (text.size() > longest.size()) longest = text;
    expression.remove_prefix(std::max(behind, std::min(end + 1, expression.size())));
  }
  return std::string(longest);
}

// Whether "^[^\n]*(expression)" matches the same lines: that takes time by the length of a line,
// where an expression with a repetition, tried at each place, takes it by the square. It takes more
// for short lines, and memory without end where what matches any byte is counted, between braces or
// one by one. A back-reference would mean another group, and a parenthesis that closes nothing
// stands for itself.
bool MayBeTriedOnce(std::string_view expression, const regex_t& compiled) {
  const auto has = [&](const char* any) {
    return expression.find_first_of(any) != std::string_view::npos;
  };
  const auto count = [&](char one) {
    return std::count(expression.begin(), expression.end(), one);
  };
  const auto closing = count(')');
  return has("*+") && !has("{") && count('.') + count('^') <= kMaxAnyBytes &&
         (compiled.re_nsub == 0 || !has("\\")) &&
         closing == static_cast<std::ptrdiff_t>(compiled.re_nsub);
}

bool EqualsAnyCase(std::string_view one, std::string_view other) {
  return one.size() == other.size() && ::strncasecmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace

std::string LogPattern::Set(const std::string& pattern, bool fixed) {
  if (pattern.find('\n') != std::string::npos) return "no line has a newline in it";
  text_ = fixed ? pattern : FindNeededText(pattern);
  if (fixed || pattern.find_first_of(kMetacharacters) == std::string::npos) return {};
  if (const int error = Compile(pattern, expression_); error != 0) {
    char reason[128];
    ::regerror(error, nullptr, reason, sizeof reason);
    return reason;
  }
  if (MayBeTriedOnce(pattern, *expression_)) Compile("^[^\n]*(" + pattern + ")", triedOnce_);
  return {};
}

int LogPattern::Compile(const std::string& pattern, Expression& expression) {
  regex_t compiled;
  const int error = ::regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NEWLINE | REG_NOSUB);
  if (error == 0) expression.reset(new regex_t(compiled));
  return error;
}

bool LogPattern::Matches(std::string_view line) const {
  if (expression_ == nullptr) return true;
  const bool once = line.size() > kLongLine && triedOnce_ != nullptr;
  regmatch_t range{};  // in: where to look
  range.rm_eo = static_cast<regoff_t>(line.size());
  return ::regexec(once ? triedOnce_.get() : expression_.get(), line.data(), 1, &range,
                   REG_STARTEND) == 0;
}

bool LogFilter::Passes(const LogLine& line) const {
  if (since && line.time < *since) return false;
  if (until && line.time > *until) return false;
  const auto isLevel = [&](const std::string& level) { return EqualsAnyCase(level, line.level); };
  if (!levels.empty() && std::none_of(levels.begin(), levels.end(), isLevel)) return false;
  return functions.empty() ||
         std::find(functions.begin(), functions.end(), line.function) != functions.end();
}

bool LogFilter::AsksForFields() const {
  return since || until || !levels.empty() || !functions.empty();
}

}  // namespace zarn::tool
