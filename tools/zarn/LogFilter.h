// LogFilter.h - which log lines are shown.
#pragma once

#include <regex.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "LogLine.h"

namespace zarn::tool {

// What --grep asks for: a regular expression as of grep -E, or plain text.
class LogPattern {
 public:
  // Empty, or what is wrong with the pattern.
  std::string Set(const std::string& pattern, bool fixed);

  // What a line must have in it, whatever else; may be empty.
  const std::string& GetText() const { return text_; }
  // Of a line that has that text.
  bool Matches(std::string_view line) const;

 private:
  struct Free {
    void operator()(regex_t* expression) const {
      ::regfree(expression);
      delete expression;
    }
  };
  using Expression = std::unique_ptr<regex_t, Free>;

  static int Compile(const std::string& pattern, Expression& expression);  // 0 or a code of regcomp

  std::string text_;
  Expression expression_;  // null: the text is all
  Expression triedOnce_;   // for long lines, which it matches as well; null: there is none
};

struct LogFilter {
  std::vector<std::string> levels;  // empty: all; case does not matter
  std::vector<std::string> functions;
  std::optional<Micros> since;
  std::optional<Micros> until;
  LogPattern pattern;

  // By the fields; lines that are not in the format go with the one before them.
  bool Passes(const LogLine& line) const;
  bool AsksForFields() const;
};

}  // namespace zarn::tool
