// ZARNLogger_fuzz.cpp - the line formatter. Formats are put together from a fixed list, with
// arguments that fit; texts around them are the input's, with '%' in them doubled or from the list.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "WallClock.h"
#include "zarn/utils/ZARNLoggerImp.h"

#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  std::size_t Number(std::size_t limit) {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<unsigned char>(rest_[0]);
    rest_.remove_prefix(1);
    return byte % limit;
  }
  // Without '%' and NUL; sometimes long enough for the line to be cut.
  std::string Text() {
    const std::size_t size = std::min(Number(64), rest_.size());
    std::string text(rest_.substr(0, size));
    rest_.remove_prefix(size);
    std::replace(text.begin(), text.end(), '%', 'p');
    std::replace(text.begin(), text.end(), '\0', '0');
    const std::size_t more = Number(256);
    if (more > 192) text.append(3800 + 5 * (more - 192), 'x');
    return text;
  }

 private:
  std::string_view rest_;
};

// Each takes (int, const char*, int*, double), all or the first of them, in this order.
constexpr const char* kPlain[] = {
    "",           "%d",           "%5d %s",      "%d%s%n",         "%d|%-10s|%hn%f",
    "%i %.2s %n", "%d%s%5n%8.3e", "%x%s%-n%+G",  "%% %c",          "%08d %10.3s %lln%a",
    "%m %d",      "%d %s",        "%d%s%hhn%lf", "%%%d%%%s%%%n%%", "%o%s%n%g"};
// These take them by position.
constexpr const char* kPositional[] = {
    "%1$d",     "%2$s %1$d",         "%3$n%2$s%1$d", "%4$f%1$d%3$hn%2$s",
    "%2$*1$s",  "%2$.*1$s|%4$g%3$n", "%1$d%1$x%1$o", "%3$*1$n%2$s%4$e",
    "%2$s%3$5n"};

// A format of up to four parts; the parts of a plain one do not take more than there is: only the
// first has conversions with arguments.
std::string MakeFormat(Input& input) {
  std::string format = input.Text();
  if (input.Number(2) == 0) return format + kPlain[input.Number(std::size(kPlain))] + input.Text();
  for (std::size_t parts = 1 + input.Number(4); parts > 0; --parts)
    format += kPositional[input.Number(std::size(kPositional))] + input.Text();
  return format + "%1$d%2$s%3$n%4$f";  // all types are known
}

// With '%' as the macros pass it.
std::string MakeName(Input& input) {
  std::string name = input.Text();
  for (std::size_t percents = input.Number(3); percents > 0; --percents)
    name.insert(input.Number(name.size() + 1), "%%");
  return name;
}

std::string Read(std::FILE* file) {
  const off_t size = ::lseek(::fileno(file), 0, SEEK_CUR);  // the logger writes past the stream
  std::string text(static_cast<std::size_t>(size), '\0');
  Check(::pread(::fileno(file), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  return text;
}

std::FILE* OpenFile() {
  std::FILE* file = std::tmpfile();
  Check(file != nullptr);
  zarn::utils::TEST_SetWallClock([] { return timeval{1706688902, 4711}; });
  return file;
}

// A name as it is shown.
std::string Shown(std::string name) {
  for (std::size_t at = name.find("%%"); at != std::string::npos; at = name.find("%%", at + 1))
    name.erase(at, 1);
  return name;
}

void PrintLine(zarn::utils::ZARNLoggerImp& logger, std::FILE* file, const char* level,
               const char* path, const char* function, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  logger.printV(level, file, path, 42, function, format, args);
  va_end(args);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::FILE* const file = OpenFile();
  Input input(data, size);
  zarn::utils::ZARNLoggerImp logger;
  logger.setWidthFilename(static_cast<unsigned char>(input.Number(256)));
  logger.setWidthFunction(static_cast<unsigned char>(input.Number(256)));
  const bool debug = input.Number(2) == 0;
  const std::string level = MakeName(input);
  const std::string path = MakeName(input);
  const std::string function = MakeName(input);
  const std::string format = MakeFormat(input);
  const std::string argument = input.Text();

  std::rewind(file);
  Check(::ftruncate(::fileno(file), 0) == 0);
  int count = 77;
  errno = ENOSPC;
  PrintLine(logger, file, level.c_str(), debug ? path.c_str() : nullptr, function.c_str(),
            format.c_str(), static_cast<int>(input.Number(200)), argument.c_str(), &count, 0.5);
  Check(errno == ENOSPC && count == 77);
  const std::string line = Read(file);
  const std::string start = "2024-01-31T08:15:02.004711 | " + Shown(level);
  Check(line.substr(0, start.size()) == start.substr(0, line.size()));
  // Only what was cut has no newline.
  if (level.size() + path.size() + function.size() + format.size() < 3700)
    Check(line.back() == '\n');
  return 0;
}
