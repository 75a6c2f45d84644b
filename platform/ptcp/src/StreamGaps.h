// StreamGaps.h - keeps the gaps in what has come of a stream few.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "PacketKey.h"

namespace ptcp {

// ngtcp2 ends a connection whose stream has a thousand gaps, which a path that only reorders can
// bring about: a window is several thousand packets. A packet that would make too many is dropped
// before ngtcp2 sees it, as if the path had lost it.
//
// What is noted must be what ngtcp2 takes, or the gaps would be miscounted. It takes no packet from
// before the last 256 gaps in the packet numbers; here none is let through that can be so late.
class StreamGaps {
 public:
  static constexpr std::size_t kMaxGaps = 900;
  static constexpr std::uint64_t kMaxPacketsLate = 500;  // packets behind the newest one

  // Notes what `frames` of the packet bear of the stream; AreOurFrames has passed them. False:
  // nothing was noted, the packet is too late or there would be too many gaps. Throws
  // std::bad_alloc, and a part of it may be noted then.
  bool Accept(std::uint64_t packetNumber, Bytes frames);

  std::size_t Count() const { return stretches_.size() - 1; }

 private:
  bool TouchesAnother(std::uint64_t begin, std::uint64_t end) const;
  void Add(std::uint64_t begin, std::uint64_t end);

  std::uint64_t newest_ = 0;
  // Begin to end, with gaps between them.
  std::map<std::uint64_t, std::uint64_t> stretches_{{0, 0}};
};

}  // namespace ptcp
