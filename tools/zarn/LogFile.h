// LogFile.h - one log file, read from its start, and again when it is begun anew.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "LogFilter.h"
#include "LogLine.h"

namespace zarn::tool {

struct LogRecord {
  std::string_view text;  // without its newline; valid until the next record of the same file
  bool inFormat = false;
  LogLine line;     // when it is
  Micros time = 0;  // its own, or that of the line it belongs to
};

// Gives the lines that pass the filter, in the order of the file. Reads it in large pieces: mapped
// into memory it could be cut while it is looked at.
class LogFile {
 public:
  static constexpr Micros kNoTime = std::numeric_limits<Micros>::min();
  static constexpr std::string_view kStandardInput = "-";

  // kStandardInput is read where it stands, and waited for. With `waits` false a pipe that is
  // empty, or that nobody writes to, has no more for now.
  LogFile(std::string path, const LogFilter& filter, bool waits);
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  const std::string& GetPath() const { return path_; }
  bool IsOpen() const { return fd_ >= 0; }

  // To be read from its start. 0 or an errno value; EDEADLK: it is standard output as well. What
  // was open stays so when nothing else can be opened.
  int Open();
  // False when there is no more for now. What stands behind the last newline is a line only when
  // asked for.
  bool Next(LogRecord& record, bool withUnfinished);
  int GetError() const { return error_; }  // errno value of a read, or 0

  // What has become of the file under this path: its contents are other ones than those read so
  // far, or it is another file.
  enum class Change { none, begunAnew, replaced };
  Change FindChange();
  // What stands behind the last newline, without reading on.
  bool TakeRest(LogRecord& record);

 private:
  bool FindLine(std::size_t& begin, std::size_t& end);
  bool FindUnfinished(std::size_t& begin, std::size_t& end);
  bool Accept(std::string_view text, std::size_t begin, LogRecord& record);
  bool Fill();
  void FindHead(std::size_t before);
  void SetHead(const LogLine& line);
  void RememberStart();

  const std::string path_;
  const LogFilter& filter_;
  const bool waits_;
  int fd_ = -1;
  int error_ = 0;
  struct stat opened_ {};
  off_t read_ = 0;     // bytes of the file
  std::string start_;  // the first of them

  std::vector<char> buffer_;
  std::size_t begin_ = 0;     // of what is not looked at yet
  std::size_t complete_ = 0;  // behind the last newline
  std::size_t end_ = 0;

  // The last line in the format before headAt_.
  std::size_t headAt_ = 0;
  Micros headTime_ = kNoTime;
  bool headPasses_;
};

}  // namespace zarn::tool
