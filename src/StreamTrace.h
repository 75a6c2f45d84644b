// StreamTrace.h - the trace lines of streams and channels.
#pragma once

#include <cstddef>

#include "FrameCodec.h"

namespace zarn::utils {

// The name that operators search for, not a class's.
inline constexpr const char* kDirectTrace = "CAWTCPSessionBase::OnReceiveDirect";

// A handler has claimed `answered` of `offered` bytes. `operation` is the name that the line begins
// with.
void TraceTooLongAnswer(const char* operation, std::size_t answered, std::size_t offered,
                        const void* stream);

// `channel` is the name of the class.
void TraceMalformedFrame(const char* channel, const Frame& frame);

}  // namespace zarn::utils
