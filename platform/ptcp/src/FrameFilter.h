// FrameFilter.h - which packets a side of ours can have sent.
#pragma once

#include <cstdint>
#include <functional>

#include "PacketKey.h"

namespace ptcp {

// Whether `frames`, the content of a packet, are such as our sides send. Others are kept away from
// ngtcp2, whose assertions can be reached by ids that are withdrawn in an order of a peer's choice.
bool AreOurFrames(Bytes frames);

// Visits the stretches of the stream, but for empty ones, in frames that AreOurFrames has passed.
void ForEachStretch(Bytes frames,
                    const std::function<void(std::uint64_t begin, std::uint64_t end)>& visit);

}  // namespace ptcp
