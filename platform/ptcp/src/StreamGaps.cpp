// StreamGaps.cpp - see StreamGaps.h.
#include "StreamGaps.h"

#include <algorithm>
#include <iterator>

#include "FrameFilter.h"

namespace ptcp {

// Each stretch that lies alone counts as a gap, also when others of the same packet touch it: a few
// too many do no harm.
bool StreamGaps::Accept(std::uint64_t packetNumber, Bytes frames) {
  if (packetNumber + kMaxPacketsLate < newest_) return false;
  std::size_t alone = 0;
  ForEachStretch(frames, [&](std::uint64_t begin, std::uint64_t end) {
    if (!TouchesAnother(begin, end)) ++alone;
  });
  if (alone != 0 && Count() + alone > kMaxGaps) return false;
  newest_ = std::max(newest_, packetNumber);
  ForEachStretch(frames, [this](std::uint64_t begin, std::uint64_t end) { Add(begin, end); });
  return true;
}

bool StreamGaps::TouchesAnother(std::uint64_t begin, std::uint64_t end) const {
  const auto next = stretches_.upper_bound(begin);
  return std::prev(next)->second >= begin || (next != stretches_.end() && next->first <= end);
}

void StreamGaps::Add(std::uint64_t begin, std::uint64_t end) {
  auto next = stretches_.upper_bound(begin);
  auto at = std::prev(next);
  if (at->second < begin) at = stretches_.emplace_hint(next, begin, end);
  at->second = std::max(at->second, end);
  while (next != stretches_.end() && next->first <= at->second) {
    at->second = std::max(at->second, next->second);
    next = stretches_.erase(next);
  }
}

}  // namespace ptcp
