// ZARNLoggerImp.cpp - see ZARNLogger.h and ZARNLoggerImp.h.
#include "zarn/utils/ZARNLoggerImp.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <new>

#include "LogExpansion.h"
#include "WallClock.h"
#include "keelbase/CAWEnvironment.h"
#include "keelbase/CAWFile.h"
#include "keelbase/CAWSingleton.h"

namespace zarn::utils {

namespace {

constexpr const char* kDebugLevel = "DEBUG";
constexpr unsigned char kFirstWidth = 20;  // of both columns, after Init
constexpr unsigned char kFilenameWidth = 15;
constexpr unsigned char kFunctionWidth = 18;

bool IsWidth(unsigned char width) { return width >= 6 && width <= 59; }

std::FILE* OpenNew(const char* path) {
  std::FILE* stream = std::fopen(path, "wb");
  // The type that callers catch.  NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference)
  if (stream == nullptr) throw static_cast<const char*>(std::strerror(errno));
  return stream;
}

}  // namespace

ZARNLogger::~ZARNLogger() = default;

ZARNLogger* ZARNLogger::Instance() {
  const int error = errno;  // %m of the caller's message
  ZARNLogger* logger = keelbase::CAWSingletonT<ZARNLoggerImp>::Instance();
  errno = error;
  return logger;
}

void ZARNLoggerImp::Init(const char* logFile, const char* debugFile) {
  ownsLogStream_ = false;
  ownsDebugStream_ = false;
  SetDebug(false);
  stdoutEnabled_ = false;
  functionWidth_ = kFirstWidth;
  filenameWidth_ = kFirstWidth;

  if (logFile == nullptr) {
    logStream_ = stdout;
  } else {
    logStream_ = OpenNew(logFile);
    ownsLogStream_ = true;
  }
  const bool same =
      logFile != nullptr && debugFile != nullptr && std::strcmp(logFile, debugFile) == 0;
  if (same || debugFile == nullptr) {
    debugStream_ = logStream_.load();
    return;
  }
  debugStream_ = OpenNew(debugFile);
  ownsDebugStream_ = true;
}

void ZARNLoggerImp::SetDebug(bool enabled) {
  if (debugEnabled_.exchange(enabled) == enabled) return;
  if (enabled)
    ++detail::loggersWithDebug;
  else
    --detail::loggersWithDebug;
}

void ZARNLoggerImp::enableDebug() { SetDebug(true); }
void ZARNLoggerImp::disableDebug() { SetDebug(false); }
void ZARNLoggerImp::enableStdout() { stdoutEnabled_ = true; }
void ZARNLoggerImp::disableStdout() { stdoutEnabled_ = false; }

void ZARNLoggerImp::setWidthFunction(unsigned char width) {
  if (IsWidth(width)) functionWidth_ = width;
}

void ZARNLoggerImp::setWidthFilename(unsigned char width) {
  if (IsWidth(width)) filenameWidth_ = width;
}

void ZARNLoggerImp::Print(const char* level, const char* function, const char* format, ...) {
  std::FILE* stream = logStream_;
  if (stream == nullptr) return;
  std::va_list args;
  va_start(args, format);
  printV(level, stream, nullptr, 0, function, format, args);
  va_end(args);
}

void ZARNLoggerImp::DebugPrint(const char* file, int line, const char* function, const char* format,
                               ...) {
  std::FILE* stream = debugStream_;
  if (stream == nullptr || !debugEnabled_) return;
  std::va_list args;
  va_start(args, format);
  printV(kDebugLevel, stream, file, line, function, format, args);
  va_end(args);
}

ZARNLoggerImp::~ZARNLoggerImp() {
  SetDebug(false);
  if (ownsLogStream_ && logStream_ != nullptr) std::fclose(logStream_);
  if (ownsDebugStream_ && debugStream_ != nullptr) std::fclose(debugStream_);
}

void ZARNLoggerImp::printV(const char* level, std::FILE* stream, const char* file, int line,
                           const char* function, const char* format, std::va_list args) {
  const int error = errno;
  const LogFields fields{GetWallTime(), level,  file,           line,
                         function,      format, filenameWidth_, functionWidth_};
  WriteLine(fields, stream, error, args);
  errno = error;
}

keelbase::AWResult InitZARNLogger(bool debug, bool toStdout) try {
  const keelbase::CAWString home = keelbase::GetBinHomePath();
  if (home.empty()) return keelbase::AW_ERROR_FAILURE;
  const keelbase::CAWString directory = home + "/logs/";
  const keelbase::CAWString path = directory + keelbase::GetProcessName();
  keelbase::CAWFile::mkdir(directory);  // if that fails, opening a file there says why

  ZARNLogger* logger = ZARNLogger::Instance();
  try {
    logger->Init((path + ".log").c_str(), (path + "_debug.log").c_str());
  } catch (const char* message) {
    std::cout << "Failed to open log file for read/write : " << message << std::endl;
    return keelbase::AW_ERROR_FAILURE;
  }
  logger->setWidthFilename(kFilenameWidth);
  logger->setWidthFunction(kFunctionWidth);
  debug ? logger->enableDebug() : logger->disableDebug();
  toStdout ? logger->enableStdout() : logger->disableStdout();
  return keelbase::AW_OK;
} catch (const std::bad_alloc&) {
  return keelbase::AW_ERROR_FAILURE;
}

namespace detail {

std::atomic<unsigned> loggersWithDebug{0};

void LogName::Double() {
  char* out = doubled_;
  char* const end = doubled_ + sizeof doubled_ - 1;
  for (const char* in = text_; *in != '\0'; ++in) {
    if (end - out < (*in == '%' ? 2 : 1)) break;
    if (*in == '%') *out++ = '%';
    *out++ = *in;
  }
  *out = '\0';
  text_ = doubled_;
}

}  // namespace detail

}  // namespace zarn::utils
