// PtcpHandshake.h - how two sides agree on keys and limits.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "ConnectionId.h"
#include "Ngtcp2.h"
#include "PacketKey.h"
#include "StreamGaps.h"

namespace ptcp {

using RandomBits = std::array<std::uint8_t, 16>;

// In the place where QUIC has TLS: client hello (magic, 128 random bits, transport parameters),
// server hello (128 random bits), server parameters, client finish (one byte). The first packets
// are keyed by the id that the client made up for the server, all others by both sides' random
// bits. ngtcp2 asserts that keys are given to it once and in order, so each of the peer's messages
// is awaited once. Operations answer false when the peer makes no sense or memory is short, and may
// throw std::bad_alloc; the connection is over then.
class PtcpHandshake {
 public:
  // `gaps` is told what comes of the stream.
  void Begin(ngtcp2_conn* conn, bool server, const RandomBits& ours, StreamGaps& gaps);

  bool SendClientHello();
  // `id` is what the client's packets are addressed to.
  bool InstallInitialKeys(const ConnectionId& id);
  // Bytes of the peer's messages, in order.
  bool OnMessage(ngtcp2::Level level, Bytes data);

  const PacketKey& SendKey() const { return sendKey_; }
  const PacketKey& ReceiveKey() const { return receiveKey_; }
  const PacketKey& TEST_InitialSendKey() const { return initialSendKey_; }

 private:
  bool InstallHandshakeKeys();
  bool InstallSendKey();
  bool InstallReceiveKey();
  bool SendMessage(ngtcp2::Level level, Bytes content, bool withParams);
  bool OnInitialHello();
  bool OnHandshakeHello();

  ngtcp2_conn* conn_ = nullptr;
  bool server_ = false;
  StreamGaps* gaps_ = nullptr;
  PacketKey initialSendKey_;
  PacketKey initialReceiveKey_;
  PacketKey sendKey_;
  PacketKey receiveKey_;
  RandomBits clientRandom_{};
  RandomBits serverRandom_{};
  // The level of the peer's next message; none: it has said all.
  std::optional<ngtcp2::Level> awaited_ = ngtcp2::kInitialLevel;
  std::array<std::vector<std::uint8_t>, 2> theirs_;  // what came of the peer's messages
  std::array<std::vector<std::uint8_t>, 2> ours_;    // must stay until acknowledged
};

}  // namespace ptcp
