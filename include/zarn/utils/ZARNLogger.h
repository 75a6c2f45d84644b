// ZARNLogger.h - the log of the process: two files, and macros that write lines to them.
//
//   zarn::utils::InitZARNLogger(false, false);          // once, at start
//   ZARN_LOG_INFO("listening at %s", path);
//   ZARN_DEBUG("%zu bytes waiting", size);              // costs next to nothing while it is off
//
// gives, in "<home>/logs/<program>.log":
//   2024-01-31T08:15:02.004711 | INFO     | main               | listening at /srv/1_2
#pragma once

#include <atomic>
#include <cstring>

#include "keelbase/CAWError.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// The process's logger. Print writes to the log file, DebugPrint to the debug file; both are null
// until InitZARNLogger (or Init) has opened them, and nothing is written before.
//
// Any thread may print at any time: a line is written by one call of the system, and is in the file
// when the call returns, whole, so that not even SIGKILL takes it back. Errors of writing are
// ignored: the line is lost, or part of it, and the next one begins in a row of its own. (But at
// the process's limit on file sizes the system sends SIGXFSZ, which ends a program that does not
// ignore it.) The caller's errno stays as it is, and %m prints it. Printing is a cancellation
// point.
//
// One process per file: two that open the same one write over each other's lines.
//
// Level, file, function and format become one text, which is then expanded with the arguments: a
// '%' in a level, file or function is a conversion too (the macros below double it). That text
// holds 4095 bytes; a longer one is cut there and loses its newline, and a conversion that the cut
// hits is left out. %n consumes its argument and writes nothing.
//
// Lives until the clean-up chain runs at exit; whoever logs later gets a logger without files.
// Threads of a program's own must have ended by then.
class ZARNUTILS_API ZARNLogger {
 public:
  static ZARNLogger* Instance();

  // Opens both files new, cutting those that exist; null for the log file means standard output,
  // null for the debug file the same stream as the log's, and so do equal names. Switches debug
  // output off and sets both widths to 20. Throws the strerror text (const char*) when a file
  // cannot be opened; a log file opened before stays in use. Files of an earlier Init stay open.
  virtual void Init(const char* logFile, const char* debugFile) = 0;

  virtual void enableDebug() = 0;
  virtual void disableDebug() = 0;
  virtual void enableStdout() = 0;  // kept, without effect so far
  virtual void disableStdout() = 0;

  // Columns of a field, 6 to 59; other values are ignored. Longer texts are not cut.
  virtual void setWidthFunction(unsigned char width) = 0;
  virtual void setWidthFilename(unsigned char width) = 0;

  // One line without file and line number. Every level is written.
  virtual void Print(const char* level, const char* function, const char* format, ...)
      __attribute__((format(printf, 4, 5))) = 0;
  // One line of level DEBUG, while debug output is on. Of `file` only what follows its last '/' is
  // shown.
  virtual void DebugPrint(const char* file, int line, const char* function, const char* format, ...)
      __attribute__((format(printf, 5, 6))) = 0;

  virtual ~ZARNLogger();
};

// Opens "<home>/logs/<program>.log" and "<program>_debug.log", <home> being
// keelbase::GetBinHomePath(), and makes that directory; sets the widths to 15 (file) and 18
// (function). `debug`: whether debug output is on; `toStdout` is kept, without effect so far, as
// enableStdout is. 0; 10001 without a home, without memory, and when a file cannot be opened, which
// is then said on standard output. To be called once, at start. A program that is installed
// elsewhere than in the install root calls keelbase::SetBinHomePath(zarn::utils::GetZARNRoot())
// before.
ZARNUTILS_API keelbase::AWResult InitZARNLogger(bool debug, bool toStdout);

namespace detail {

// How many loggers of this process have debug output on: what ZARN_DEBUG looks at.
extern ZARNUTILS_API std::atomic<unsigned> loggersWithDebug;

// A name as the logger wants it: each '%' doubled. For a literal without one the compiler leaves
// nothing of this.
class LogName {
 public:
  explicit LogName(const char* name) : text_(name) {
    if (name != nullptr && std::strchr(name, '%') != nullptr) Double();
  }
  LogName(const LogName&) = delete;
  LogName& operator=(const LogName&) = delete;

  const char* Get() const { return text_; }

 private:
  ZARNUTILS_API void Double();  // what finds no room is left out

  const char* text_;
  char doubled_[512];
};

}  // namespace detail

}  // namespace zarn::utils

// ZARN_LOG(level, format, ...): one line of that level, with the name of the calling function.
#define ZARN_LOG(level, ...)                                                                   \
  ::zarn::utils::ZARNLogger::Instance()->Print(::zarn::utils::detail::LogName(level).Get(),    \
                                               ::zarn::utils::detail::LogName(__func__).Get(), \
                                               __VA_ARGS__)
#define ZARN_LOG_ERROR(...) ZARN_LOG("ERROR", __VA_ARGS__)
#define ZARN_LOG_WARN(...) ZARN_LOG("WARN", __VA_ARGS__)
#define ZARN_LOG_INFO(...) ZARN_LOG("INFO", __VA_ARGS__)

// ZARN_DEBUG(format, ...): one debug line, with file, line and function. The arguments are not
// evaluated while debug output is off; but they are while another ZARNLoggerImp of the process has
// its own on.
#define ZARN_DEBUG(...)                                                                       \
  (__builtin_expect(                                                                          \
       ::zarn::utils::detail::loggersWithDebug.load(::std::memory_order_relaxed) != 0, false) \
       ? ::zarn::utils::ZARNLogger::Instance()->DebugPrint(                                   \
             ::zarn::utils::detail::LogName(__FILE__).Get(), __LINE__,                        \
             ::zarn::utils::detail::LogName(__func__).Get(), __VA_ARGS__)                     \
       : static_cast<void>(0))
