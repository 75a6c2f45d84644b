// SealedPackets.h - packets of any content that bear a right tag: what a peer can send that knows
// the keys and means harm.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "PacketKey.h"
#include "PtcpConnection.h"

namespace ptcp::test {

using Datagram = std::vector<std::uint8_t>;

inline void Append(Datagram& to, Bytes bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

// Puts the tag behind `payload`, both behind `header`, which ends with the 4 bytes of `number`.
inline Datagram Seal(Datagram header, std::uint32_t number, Bytes payload, const PacketKey& key) {
  std::array<std::uint8_t, 12> nonce{};
  for (std::size_t i = 0; i < 4; ++i) {
    nonce[8 + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
    header.push_back(nonce[8 + i]);
  }
  const Tag tag = key.Sign({header, nonce, payload});
  Append(header, payload);
  Append(header, tag);
  return header;
}

// A packet of an established connection.
inline Datagram SealShort(const ConnectionId& to, std::uint32_t number, Bytes payload,
                          const PacketKey& key, std::uint8_t flags = 0) {
  Datagram header = {static_cast<std::uint8_t>(0x43 | flags)};
  Append(header, to.View());
  return Seal(std::move(header), number, payload, key);
}

enum class LongType : std::uint8_t { initial = 0xC3, handshake = 0xE3 };

inline Datagram SealLong(LongType type, const ConnectionId& to, const ConnectionId& from,
                         std::uint32_t number, Datagram payload, const PacketKey& key) {
  constexpr std::size_t kMinInitial = 1200;
  if (type == LongType::initial && payload.size() < kMinInitial) payload.resize(kMinInitial);
  Datagram header = {static_cast<std::uint8_t>(type), 0, 0, 0, 1};
  header.push_back(static_cast<std::uint8_t>(to.size));
  Append(header, to.View());
  header.push_back(static_cast<std::uint8_t>(from.size));
  Append(header, from.View());
  if (type == LongType::initial) header.push_back(0);  // no token
  const std::size_t length = 4 + payload.size() + sizeof(Tag);
  header.push_back(static_cast<std::uint8_t>(0x40 | length >> 8));
  header.push_back(static_cast<std::uint8_t>(length & 255));
  return Seal(std::move(header), number, payload, key);
}

// The CRYPTO frame with `content` at the beginning of its stream.
inline Datagram CryptoFrame(Bytes content) {
  Datagram frame = {0x06, 0, static_cast<std::uint8_t>(0x40 | content.size() >> 8),
                    static_cast<std::uint8_t>(content.size() & 255)};
  Append(frame, content);
  return frame;
}

}  // namespace ptcp::test
