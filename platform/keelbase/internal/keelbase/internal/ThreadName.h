// ThreadName.h - threads as people see them in a message.
#pragma once

#include <cstdint>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWString.h"

namespace keelbase::internal {

// The system's thread number, never 0.
KEELBASE_API std::uint64_t CurrentThreadNumber();

// "thread 4711 (zarn-network)".
CAWString DescribeThread(std::uint64_t number);

// Traces "<what> belongs to thread 1 (a) and was used from thread 2 (b)".
void TraceWrongThread(const char* what, std::uint64_t owner, std::uint64_t caller);

// The same, then aborts.
[[noreturn]] void StopForWrongThread(const char* what, std::uint64_t owner, std::uint64_t caller);

}  // namespace keelbase::internal
