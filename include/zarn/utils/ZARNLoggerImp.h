// ZARNLoggerImp.h - a logger that writes to files.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "zarn/utils/ZARNLogger.h"

namespace zarn::utils {

// What ZARNLogger::Instance() is; a program may have more of them for files of its own. See
// ZARNLogger for what each operation does. Settings may change while other threads print.
class ZARNUTILS_API ZARNLoggerImp : public ZARNLogger {
 public:
  ZARNLoggerImp() = default;  // without files, debug output off
  ZARNLoggerImp(const ZARNLoggerImp&) = delete;
  ZARNLoggerImp& operator=(const ZARNLoggerImp&) = delete;

  void Init(const char* logFile, const char* debugFile) override;
  void enableDebug() override;
  void disableDebug() override;
  void enableStdout() override;
  void disableStdout() override;
  void setWidthFunction(unsigned char width) override;
  void setWidthFilename(unsigned char width) override;
  void Print(const char* level, const char* function, const char* format, ...) override
      __attribute__((format(printf, 4, 5)));
  void DebugPrint(const char* file, int line, const char* function, const char* format,
                  ...) override __attribute__((format(printf, 5, 6)));
  ~ZARNLoggerImp() override;  // closes the files of the last Init

  // Writes one line to `stream`, which must not be null; without file and line number when `file`
  // is null. `args` is used up. It goes past the stream's buffer, so ftell may not know of it.
  void printV(const char* level, std::FILE* stream, const char* file, int line,
              const char* function, const char* format, std::va_list args)
      __attribute__((format(printf, 7, 0)));

 private:
  void SetDebug(bool enabled);

  bool ownsLogStream_ = false;
  bool ownsDebugStream_ = false;
  std::atomic<std::FILE*> debugStream_{nullptr};
  std::atomic<std::FILE*> logStream_{nullptr};
  std::atomic<bool> debugEnabled_{false};
  [[maybe_unused]] std::atomic<bool> stdoutEnabled_{false};  // no code reads it; debuggers show it
  std::atomic<unsigned char> functionWidth_{0};
  std::atomic<unsigned char> filenameWidth_{0};
};

}  // namespace zarn::utils
