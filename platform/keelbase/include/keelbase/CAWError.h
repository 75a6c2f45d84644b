// CAWError.h - the result codes of the platform and the libraries above it.
#pragma once

#include <cstdint>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWString.h"

namespace keelbase {

// Every operation that can fail returns one of these. Transports also report errno values (1 to
// 4095) as the reason of a failed connect or of a disconnect; the two ranges do not overlap.
using AWResult = std::uint32_t;

inline constexpr AWResult AW_OK = 0;
inline constexpr AWResult AW_ERROR_FAILURE = 10001;          // general failure
inline constexpr AWResult AW_ERROR_NOT_INITIALIZED = 10002;  // no transport attached
inline constexpr AWResult AW_ERROR_NOT_FOUND = 10011;
inline constexpr AWResult AW_ERROR_NOT_AVAILABLE = 10012;
inline constexpr AWResult AW_ERROR_PARTIAL_DATA = 10013;  // a send taken in part, OnSend follows

// A text for people: of a code above, or of an errno value ("Connection refused"). Of 0 it is
// "Success": as the reason of a disconnect 0 says that the peer has closed, so ask for it first.
// Any thread.
KEELBASE_API CAWString DescribeResult(long reason);

}  // namespace keelbase
