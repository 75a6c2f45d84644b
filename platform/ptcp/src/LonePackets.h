// LonePackets.h - packets that belong to no connection, or to none yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "ConnectionId.h"
#include "PacketKey.h"

namespace ptcp {

inline constexpr std::size_t kLocalIdSize = 8;  // of the ids that we make

// Of the handshake; the others belong to connections.
inline bool HasLongHeader(Bytes packet) { return !packet.empty() && (packet[0] & 0x80) != 0; }

// A client's first packet, as far as it is readable without a key.
struct InitialHeader {
  ConnectionId destination;
  ConnectionId source;
  Bytes token;
};

// The id that the datagram is for; none when it is no packet at all.
std::optional<ConnectionId> DestinationOf(Bytes datagram);

// The packets of the handshake that the datagram begins with; without those behind them.
Bytes LongPacketsOf(Bytes datagram);

// None when it cannot be the first packet of a connection.
std::optional<InitialHeader> ReadInitial(Bytes datagram);

// What asks the client to come again with `token`, under the id `source`. Empty when impossible.
std::vector<std::uint8_t> MakeRetry(const InitialHeader& initial, const ConnectionId& source,
                                    Bytes token);

// What tells the client that nobody listens; much shorter than its packet is.
std::vector<std::uint8_t> MakeRefusal(const InitialHeader& initial);

// Each packet of a connection has more: a reset is shorter than what it answers, so that two that
// have forgotten each other do not go on answering.
inline constexpr std::size_t kResetSize = 5 + kTagSize;

// What tells the sender of `datagram` that nobody knows its connection. It bears random bytes where
// others have their id. Empty when that is as short as a reset.
std::vector<std::uint8_t> MakeReset(
    Bytes datagram, const Tag& token,
    const std::function<void(std::uint8_t*, std::size_t)>& fillRandom);

}  // namespace ptcp
