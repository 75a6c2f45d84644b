// ProofScale.h - how often a proof repeats what it proves.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "Sanitized.h"

namespace testsupport {

// `full` when ZARN_PROOF_FULL=1 (scripts/soak --proofs sets it), else a twentieth of it, with a
// sanitizer a sixtieth, at least 1.
inline int ProofCount(int full) {
  const char* value = std::getenv("ZARN_PROOF_FULL");
  if (value != nullptr && std::string_view(value) == "1") return full;
  return std::max(1, full / (zarn::test::IsSanitized() ? 60 : 20));
}

}  // namespace testsupport
