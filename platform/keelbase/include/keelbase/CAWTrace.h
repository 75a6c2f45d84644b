// CAWTrace.h - the platform's trace facility: one line of text for the operator of a process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "keelbase/CAWDefines.h"

namespace keelbase {

// Where the libraries report what no result code can carry. Level 0 is an error; higher levels are
// detail. Reached by Instance(); lives as long as the process.
// Threads: every operation may be called from any thread.
class KEELBASE_API IAWTraceManager {
 public:
  using Sink = std::function<void(std::uint32_t level, std::string_view text)>;

  static IAWTraceManager* Instance();

  // Hands `text` (without a line end) to the sink. Never blocks on anything but the sink.
  virtual void Trace(std::uint32_t level, std::string_view text) = 0;

  // Replaces the sink; an empty function restores the default one, which writes level 0 to standard
  // error and limits the rate of repeats: of one text at most five lines a second, the rest counted
  // in one line; what is beyond 16 texts in a second counts as one text, "other texts". The sink
  // runs on the thread that traces, one call at a time, while the operation that traces may hold
  // locks of the libraries: it must not wait for another thread, call what may be busy with such an
  // operation (streams, managers, stores), nor end the process with exit(). It may write to a file
  // and to the log (ZARNLogger), and replace itself, which happens when it returns. What it traces
  // itself is dropped.
  virtual void SetSink(Sink sink) = 0;

 protected:
  virtual ~IAWTraceManager() = default;
};

// Builds one line in a caller's buffer. Always terminated; what does not fit is cut, never overrun.
class KEELBASE_API CAWTextFormator {
 public:
  CAWTextFormator(char* buffer, std::size_t size);  // size 0 is allowed: everything is cut

  CAWTextFormator& operator<<(std::string_view text);
  CAWTextFormator& operator<<(const char* text);  // null prints as "(null)"
  CAWTextFormator& operator<<(char value);
  CAWTextFormator& operator<<(int value);
  CAWTextFormator& operator<<(unsigned value);
  CAWTextFormator& operator<<(long value);
  CAWTextFormator& operator<<(unsigned long value);
  CAWTextFormator& operator<<(long long value);
  CAWTextFormator& operator<<(unsigned long long value);
  CAWTextFormator& operator<<(const void* address);  // as 0x...

  const char* GetText() const { return buffer_; }
  std::size_t GetLength() const { return length_; }
  std::string_view View() const { return {buffer_, length_}; }

 private:
  char* buffer_;
  std::size_t size_;
  std::size_t length_ = 0;
};

}  // namespace keelbase
