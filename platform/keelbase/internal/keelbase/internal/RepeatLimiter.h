// RepeatLimiter.h - keeps a text that repeats from flooding a log.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace keelbase::internal {

// Of one text at most kLinesPerWindow pass in a window, which begins with its first line. The rest
// is counted, and the count is told when any text is offered after the window's end. Texts that
// come while kTexts others have their windows share one, so that any number of them writes no more.
// Not thread-safe. The clock is the caller's.
class RepeatLimiter {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::uint32_t kLinesPerWindow = 5;
  static constexpr std::chrono::seconds kWindow{1};
  static constexpr std::size_t kTexts = 16;

  // Calls write(std::string_view) for each line that is to be written now.
  template <class Write>
  void Offer(std::string_view text, Clock::time_point now, Write&& write) {
    for (Entry& entry : entries_) {
      if (entry.IsOver(now)) TellCount(entry, write);
    }
    if (others_.IsOver(now)) TellCount(others_, write);
    Entry& entry = Find(text, now);
    if (entry.IsOver(now)) {
      entry.begin = now;
      entry.lines = 0;
    }
    if (entry.lines == kLinesPerWindow) {
      ++entry.held;
      return;
    }
    ++entry.lines;
    write(text);
  }

 private:
  struct Entry {
    std::string text;
    Clock::time_point begin{};
    std::uint32_t lines = 0;  // passed in this window; 0: the entry is free
    std::uint64_t held = 0;   // held back and not told yet

    bool IsOver(Clock::time_point now) const { return lines == 0 || now - begin >= kWindow; }
  };

  Entry& Find(std::string_view text, Clock::time_point now) {
    for (Entry& entry : entries_) {
      if (entry.lines != 0 && entry.text == text) return entry;
    }
    Entry& oldest =
        *std::min_element(entries_.begin(), entries_.end(),
                          [](const Entry& a, const Entry& b) { return a.begin < b.begin; });
    if (!oldest.IsOver(now)) return others_;
    oldest.lines = 0;
    oldest.text.assign(text);
    return oldest;
  }

  template <class Write>
  static void TellCount(Entry& entry, Write& write) {
    if (entry.held == 0) return;
    const std::string line = entry.text + " (" + std::to_string(entry.held) + " more times)";
    entry.held = 0;
    write(std::string_view(line));
  }

  std::array<Entry, kTexts> entries_;
  Entry others_{"other texts", {}, 0, 0};
};

}  // namespace keelbase::internal
