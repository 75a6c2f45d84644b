// LineReader.h - standard input, line by line, without ever blocking the loop.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "Descriptor.h"

namespace zarn::tool {

struct Line {
  std::string text;  // without its line end
  std::size_t number = 0;
  bool tooLong = false;  // more than the limit; the text is empty then
};

// Reads on a thread of its own and holds at most about a MiB: it waits until lines are taken.
class LineReader {
 public:
  // `notify` is called on the reading thread when there is something to take again.
  LineReader(std::size_t longest, std::function<void()> notify);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  std::optional<Line> Take();  // nothing: none for now
  bool IsAtEnd();              // all has been taken, no more will come
  int GetError();              // errno value of the read that ended it, or 0

 private:
  void Read();
  bool WaitForInput();
  void AddBytes(const char* data, std::size_t size);
  void AddPart(const char* data, std::size_t size);
  void EndLine();

  const std::size_t longest_;
  const std::function<void()> notify_;
  const Descriptor stop_;  // readable when the thread is to end

  std::mutex mutex_;
  std::condition_variable room_;
  std::deque<Line> lines_;
  std::size_t held_ = 0;  // bytes of lines_, with what each costs
  bool stopped_ = false;
  bool ended_ = false;
  int error_ = 0;

  Line current_;          // of the reading thread
  bool started_ = false;  // current_ holds the start of a line
  std::thread thread_;
};

}  // namespace zarn::tool
