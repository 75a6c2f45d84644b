// LogTest.h - what the tests of the logger share: a time of day that stands still, and a logger
// with a file of its own.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include "TempRoot.h"
#include "WallClock.h"
#include "zarn/utils/ZARNLoggerImp.h"

namespace zarn::test {

inline std::string ReadFile(const std::string& path, std::size_t begin = 0) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(begin));
  return {std::istreambuf_iterator<char>(file), {}};
}

// 2024-01-31T08:15:02.004711, or another one.
class FixedTime {
 public:
  explicit FixedTime(timeval time = {1706688902, 4711}) {
    now_ = time;
    utils::TEST_SetWallClock([] { return now_; });
  }
  ~FixedTime() { utils::TEST_SetWallClock(nullptr); }
  FixedTime(const FixedTime&) = delete;
  FixedTime& operator=(const FixedTime&) = delete;

 private:
  inline static timeval now_{};
};

// With debug output on and the widths of InitZARNLogger, writing both kinds of lines to one file.
class FileLogger {
 public:
  FileLogger() {
    logger.Init(GetPath().c_str(), nullptr);
    logger.setWidthFilename(15);
    logger.setWidthFunction(18);
    logger.enableDebug();
  }

  std::string GetPath() const { return directory_.GetPath() + "/a.log"; }
  std::string Read() const { return ReadFile(GetPath()); }
  // What was written since the last call.
  std::string Take() {
    std::string text = ReadFile(GetPath(), taken_);
    taken_ += text.size();
    return text;
  }

 private:
  TempDir directory_;
  std::size_t taken_ = 0;

 public:
  utils::ZARNLoggerImp logger;
};

}  // namespace zarn::test
