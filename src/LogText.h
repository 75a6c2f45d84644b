// LogText.h - a log line before its message is expanded: the text that is a printf pattern.
#pragma once

#include <sys/time.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace zarn::utils {

struct LogFields {
  timeval time;
  const char* level;
  const char* file;  // null: a line without file and line number
  int line;
  const char* function;
  const char* format;
  unsigned filenameWidth;
  unsigned functionWidth;
};

// Holds 4095 bytes and drops what does not fit.
class CutText {
 public:
  void Append(std::string_view text) {
    const std::size_t fitting = Take(text.size());
    if (fitting != 0) std::memcpy(text_ + size_ - fitting, text.data(), fitting);
  }
  void Fill(std::size_t count, char filler) {
    const std::size_t fitting = Take(count);
    std::memset(text_ + size_ - fitting, filler, fitting);
  }

  // With a terminator, until the next change.
  char* Get() {
    text_[size_] = '\0';
    return text_;
  }
  bool IsCut() const { return cut_; }
  void Shorten(std::size_t size) { size_ = size; }

 private:
  std::size_t Take(std::size_t wanted) {
    const std::size_t fitting = std::min(wanted, sizeof text_ - 1 - size_);
    cut_ = cut_ || fitting < wanted;
    size_ += fitting;
    return fitting;
  }

  std::size_t size_ = 0;
  bool cut_ = false;
  char text_[4096];
};

// Holds all of it.
class WholeText {
 public:
  void Append(std::string_view text) { text_.append(text); }
  void Fill(std::size_t count, char filler) { text_.append(count, filler); }

  const std::string& Get() const { return text_; }

 private:
  std::string text_;
};

// For Text = CutText and WholeText: adds the whole line, format and newline included.
template <class Text>
void Compose(const LogFields& fields, Text& text);

}  // namespace zarn::utils
