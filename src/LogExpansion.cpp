// LogExpansion.cpp - see LogExpansion.h.
#include "LogExpansion.h"

#include <pthread.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "LogConversions.h"

namespace zarn::utils {

namespace {

// The arguments of one line, which may be put into several patterns.
class Arguments {
 public:
  Arguments(std::va_list args, int error) : error_(error) { va_copy(args_, args); }
  ~Arguments() { va_end(args_); }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;

  // As vsnprintf.
  int Expand(const char* pattern, char* out, std::size_t room) {
    std::va_list copy;
    va_copy(copy, args_);
    errno = error_;
    const int size = std::vsnprintf(out, room, pattern, copy);
    va_end(copy);
    return size;
  }

  // The size of what the pattern gives; 0 for one that is no good.
  std::size_t Measure(const std::string& pattern) {
    const int size = Expand(pattern.c_str(), nullptr, 0);
    return size > 0 ? static_cast<std::size_t>(size) : 0;
  }

  void ExpandTo(std::FILE* stream, const char* pattern) {
    errno = error_;
    std::vfprintf(stream, pattern, args_);
  }

 private:
  const int error_;
  std::va_list args_;
};

// Holds a stream while one line goes to its file, past its buffer. Also lets go of it when the
// thread is cancelled on the way.
class LineOutput {
 public:
  explicit LineOutput(std::FILE* stream) : stream_(stream), file_(::fileno(stream)) {
    ::flockfile(stream_);
  }
  ~LineOutput() {
    if (torn_) LeaveNewline();
    ::funlockfile(stream_);
  }
  LineOutput(const LineOutput&) = delete;
  LineOutput& operator=(const LineOutput&) = delete;

  void Write(const char* line, std::size_t size) {
    if (file_ < 0) {  // a stream in memory, say
      ::fwrite_unlocked(line, 1, size, stream_);
      ::fflush_unlocked(stream_);
      return;
    }
    if (::__fpending(stream_) != 0 && ::fflush_unlocked(stream_) != 0) torn_ = true;
    if (torn_) WriteAll("\n", 1);
    if (!torn_) WriteAll(line, size);
  }

 private:
  void WriteAll(const char* text, std::size_t size) {
    const bool before = torn_;
    torn_ = true;  // a cancelled thread does not learn how much was written
    std::size_t written = 0;
    while (written < size) {
      const ssize_t count = ::write(file_, text + written, size - written);
      if (count > 0)
        written += static_cast<std::size_t>(count);
      else if (count == 0 || errno != EINTR)
        break;
    }
    torn_ = written < size && (before || written > 0);
  }

  // In the stream's buffer: whoever writes next begins a row of its own.
  void LeaveNewline() {
    int state = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);  // no unwinding out of a destructor
    ::putc_unlocked('\n', stream_);
    ::pthread_setcancelstate(state, nullptr);
  }

  std::FILE* const stream_;
  const int file_;
  bool torn_ = false;  // whether the file ends within a line
};

void Write(std::FILE* stream, const char* line, std::size_t size) {
  LineOutput(stream).Write(line, size);
}

void WriteExpanded(const char* pattern, std::FILE* stream, Arguments& arguments) {
  char shortLine[4096];
  const int wanted = arguments.Expand(pattern, shortLine, sizeof shortLine);
  const auto size = static_cast<std::size_t>(wanted);
  if (wanted >= 0 && size < sizeof shortLine) return Write(stream, shortLine, size);
  if (wanted >= 0) {
    const std::unique_ptr<char, decltype(&std::free)> line(
        static_cast<char*>(std::malloc(size + 1)), &std::free);
    // A string that another thread changes may have grown or shrunk since.
    if (line != nullptr) {
      const int got = arguments.Expand(pattern, line.get(), size + 1);
      if (got >= 0) return Write(stream, line.get(), std::min(size, std::size_t(got)));
    }
  }
  // No memory, or a conversion that fails: the stream takes what comes before that.
  arguments.ExpandTo(stream, pattern);
  std::fflush(stream);
}

// For a line with %n, or one that was cut and names its arguments by position. Of these the ones
// that stand only in what was cut off must be known too, or those behind them are not found. So all
// of the line is expanded, and what is not wanted is taken out again. Where that stands is known
// from the sizes of shorter patterns.
class CarefulLine {
 public:
  CarefulLine(const LogFields& fields, const std::string& kept, bool positional,
              Arguments& arguments)
      : kept_(kept.c_str(), kept.size()), positional_(positional), arguments_(arguments) {
    all_ = kept_.text;
    if (!positional || NamesAllArguments(all_.c_str())) return;
    WholeText whole;
    Compose(fields, whole);
    all_ = HarmlessPattern(whole.Get().c_str(), whole.Get().size()).text;
  }

  std::string Expand() {
    std::string line(arguments_.Measure(all_), '\0');
    arguments_.Expand(all_.c_str(), line.data(), line.size() + 1);
    line.resize(std::min(line.size(), MeasureFirst(kept_.text.size())));
    for (std::size_t i = kept_.begins.size(); i-- > 0;) {
      const std::size_t begin = std::min(line.size(), MeasureFirst(kept_.begins[i]));
      const std::size_t end = std::min(line.size(), MeasureFirst(kept_.ends[i]));
      line.erase(begin, end - begin);
    }
    return line;
  }

 private:
  // What the first `size` bytes of the pattern give. By position they may be used a second time, in
  // front of a pattern that names all arguments.
  std::size_t MeasureFirst(std::size_t size) {
    const std::string first = kept_.text.substr(0, size);
    if (!positional_) return arguments_.Measure(first);
    return arguments_.Measure(first + all_) - arguments_.Measure(all_);
  }

  const HarmlessPattern kept_;
  const bool positional_;
  Arguments& arguments_;
  std::string all_;
};

}  // namespace

void WriteLine(const LogFields& fields, std::FILE* stream, int error, std::va_list args) {
  CutText text;
  Compose(fields, text);
  const PatternCheck check = CheckPattern(text.Get());
  text.Shorten(check.size);
  Arguments arguments(args, error);
  if (!check.writes && !(check.positional && text.IsCut()))
    return WriteExpanded(text.Get(), stream, arguments);
  try {
    const std::string kept(text.Get(), check.size);
    const std::string line = CarefulLine(fields, kept, check.positional, arguments).Expand();
    Write(stream, line.data(), line.size());
  } catch (const std::bad_alloc&) {
    // Like a line that cannot be written.
  }
}

}  // namespace zarn::utils
