// HandshakeLimit.h - how long a handshake may take, on either side.
#pragma once

#include <chrono>

namespace sslutils::internal {

inline constexpr std::chrono::seconds kHandshakeLimit{10};

}  // namespace sslutils::internal
