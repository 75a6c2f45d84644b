// Output.h - what the program prints: lines for people or JSON objects, and complaints.
#pragma once

#include <fmt/format.h>
#include <json/value.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "Escape.h"

namespace zarn::tool {

class Latency;
struct Message;

// Standard output, either text or one JSON object a line; what is meant for the other kind is not
// printed. Gathers lines and writes them when asked to, or when much has come together.
class Output {
 public:
  explicit Output(bool json) : json_(json) {}
  ~Output() { Flush(); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // `dirty` is called when there is something to flush again, and `failed` once, when nobody can
  // read the output any more.
  void SetHooks(std::function<void()> dirty, std::function<void()> failed);

  bool IsJson() const { return json_; }

  template <class... Args>
  void Text(fmt::format_string<Args...> format, Args&&... args) {
    if (!json_) AddLine(fmt::format(format, std::forward<Args>(args)...));
  }
  void Object(const Json::Value& object);
  void PrintMessage(const std::string& peer, const Message& message, bool full);

  bool Flush();                            // false when the output cannot be written
  int GetError() const { return error_; }  // errno value of what could not be written, or 0

 private:
  void AddLine(std::string_view line);
  void Fail(int error);

  const bool json_;
  int error_ = 0;
  std::string waiting_;
  std::function<void()> onDirty_;
  std::function<void()> onFailed_;
};

// Whether nobody reads standard output any more, which a pipe tells without being written to. Waits
// that long for it, or until a signal comes.
bool IsOutputClosed(int milliseconds);

// One line on standard error.
void ComplainLine(const std::string& text);

template <class... Args>
void Complain(fmt::format_string<Args...> format, Args&&... args) {
  ComplainLine(fmt::format(format, std::forward<Args>(args)...));
}

// Adds the percentiles of round trips to an object, in microseconds; nothing when there are none.
void AddRoundTrips(Json::Value& object, const Latency& latency);

// 1536 as "1.5 KiB".
std::string FormatBytes(double bytes);

}  // namespace zarn::tool
