// PacketKey.h - the keyed tag that tells a connection's own packets from all others.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

namespace ptcp {

using Bytes = std::span<const std::uint8_t>;
using Tag = std::array<std::uint8_t, 16>;
inline constexpr std::size_t kTagSize = sizeof(Tag);

// Signs with a 128-bit keyed hash (xxHash). That keeps out who does not know the key, packets that
// were damaged and late duplicates; it is no cryptography.
class PacketKey {
 public:
  PacketKey() : PacketKey(Bytes{}) {}
  explicit PacketKey(Bytes material);

  Tag Sign(std::initializer_list<Bytes> parts) const;

 private:
  static constexpr std::size_t kSecretSize = 192;  // as xxHash recommends
  std::array<std::uint8_t, kSecretSize> secret_;
};

}  // namespace ptcp
