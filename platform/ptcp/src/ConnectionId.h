// ConnectionId.h - the name that a packet bears of the connection that it belongs to.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "PacketKey.h"

namespace ptcp {

// Up to 20 bytes. Those that a client makes up for its first packets come from outside.
struct ConnectionId {
  static constexpr std::size_t kMaxSize = 20;

  ConnectionId() = default;
  explicit ConnectionId(Bytes from) : size(std::min(from.size(), kMaxSize)) {
    std::copy_n(from.begin(), size, bytes.begin());
  }
  Bytes View() const { return {bytes.data(), size}; }
  friend bool operator==(const ConnectionId& a, const ConnectionId& b) {
    return std::equal(a.View().begin(), a.View().end(), b.View().begin(), b.View().end());
  }

  std::size_t size = 0;
  std::array<std::uint8_t, kMaxSize> bytes{};
};

}  // namespace ptcp
