// LogPrinter.h - how log lines are shown: as they are, in colour, or as JSON objects.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "LogFile.h"
#include "Output.h"

namespace zarn::tool {

class LogPrinter {
 public:
  // `names`: show which file a line is from. On a terminal lines that are not printable are
  // escaped, and there are colours unless the environment has NO_COLOR.
  LogPrinter(Output& output, bool names);

  void SetPaths(const std::vector<std::string>& paths);  // of all files that there are
  void Print(const std::string& path, const LogRecord& record);
  void PrintRestart(const std::string& path);

 private:
  void PrintObject(const std::string& path, const LogRecord& record);
  std::string Decorate(const LogRecord& record) const;

  Output& output_;
  const bool names_;
  const bool terminal_;
  const bool colours_;
  std::map<std::string, std::string> prefixes_;  // by path
};

}  // namespace zarn::tool
