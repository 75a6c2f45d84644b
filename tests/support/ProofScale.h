// ProofScale.h - how often a proof repeats what it proves.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace testsupport {

// `full` when ZARN_PROOF_FULL=1 (scripts/soak --proofs sets it), else a twentieth of it, at
// least 1.
inline int ProofCount(int full) {
  const char* value = std::getenv("ZARN_PROOF_FULL");
  return value != nullptr && std::string_view(value) == "1" ? full : std::max(1, full / 20);
}

}  // namespace testsupport
