// TraceLines.h - collects the trace lines of a test instead of printing them.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "keelbase/CAWTrace.h"

namespace zarn::test {

class TraceLines {
 public:
  struct Line {
    std::uint32_t level;
    std::string text;
  };

  TraceLines() {
    keelbase::IAWTraceManager::Instance()->SetSink(
        [this](std::uint32_t level, std::string_view text) {
          const std::lock_guard<std::mutex> lock(mutex_);
          lines_.push_back({level, std::string(text)});
        });
  }
  ~TraceLines() { keelbase::IAWTraceManager::Instance()->SetSink({}); }
  TraceLines(const TraceLines&) = delete;
  TraceLines& operator=(const TraceLines&) = delete;

  std::vector<Line> Get() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

}  // namespace zarn::test
