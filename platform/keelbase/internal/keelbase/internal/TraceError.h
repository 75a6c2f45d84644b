// TraceError.h - tells the operator of a failure that no result code and no callback can carry, or
// not well enough.
#pragma once

#include <cstring>
#include <new>
#include <string_view>

#include "keelbase/CAWTrace.h"

namespace keelbase::internal {

// Also without memory, when the line may be lost.
inline void TraceLine(std::string_view line) noexcept {
  try {
    IAWTraceManager::Instance()->Trace(0, line);
  } catch (const std::bad_alloc&) {
  }
}

// One line: "WHAT: what the errno value means".
inline void TraceError(std::string_view what, int error) noexcept {
  char line[256];
  CAWTextFormator text(line, sizeof line);
  const char* meaning = ::strerrordesc_np(error);
  text << what << ": ";
  if (meaning != nullptr)
    text << meaning;
  else
    text << error;
  TraceLine(text.View());
}

}  // namespace keelbase::internal
