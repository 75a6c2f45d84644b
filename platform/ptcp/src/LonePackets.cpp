// LonePackets.cpp - see LonePackets.h.
#include "LonePackets.h"

#include <algorithm>

#include "Ngtcp2.h"
#include "PacketSeal.h"

namespace ptcp {

std::optional<ConnectionId> DestinationOf(Bytes datagram) {
  if (datagram.empty()) return std::nullopt;
  ngtcp2_version_cid header;
  if (ngtcp2_pkt_decode_version_cid(&header, datagram.data(), datagram.size(), kLocalIdSize) != 0 ||
      header.dcidlen > ConnectionId::kMaxSize)
    return std::nullopt;
  return ConnectionId({header.dcid, header.dcidlen});
}

Bytes LongPacketsOf(Bytes datagram) {
  std::size_t at = 0;
  while (HasLongHeader(datagram.subspan(at))) {
    ngtcp2_pkt_hd header;
    const Bytes rest = datagram.subspan(at);
    const ngtcp2_ssize length = ngtcp2_pkt_decode_hd_long(&header, rest.data(), rest.size());
    // What has no length (or none that makes sense) goes to the end.
    if (length < 0 || header.len == 0) return datagram;
    at += std::min(rest.size(), static_cast<std::size_t>(length) + header.len);
  }
  return datagram.first(at);
}

std::optional<InitialHeader> ReadInitial(Bytes datagram) {
  ngtcp2_pkt_hd header;
  if (ngtcp2_accept(&header, datagram.data(), datagram.size()) != 0 ||
      header.version != NGTCP2_PROTO_VER_V1 || header.dcid.datalen < NGTCP2_MIN_INITIAL_DCIDLEN)
    return std::nullopt;
  return InitialHeader{ngtcp2::FromCid(header.dcid), ngtcp2::FromCid(header.scid),
                       ngtcp2::TokenOf(header)};
}

std::vector<std::uint8_t> MakeRetry(const InitialHeader& initial, const ConnectionId& source,
                                    Bytes token) {
  std::vector<std::uint8_t> packet(512);
  const ngtcp2_cid destination = ngtcp2::ToCid(initial.source);
  const ngtcp2_cid ours = ngtcp2::ToCid(source);
  const ngtcp2_cid original = ngtcp2::ToCid(initial.destination);
  const ngtcp2_crypto_aead tagOnly = TagOnly();
  const ngtcp2_crypto_aead_ctx key = Aead(RetryKey());
  const ngtcp2_ssize length =
      ngtcp2_pkt_write_retry(packet.data(), packet.size(), NGTCP2_PROTO_VER_V1, &destination, &ours,
                             &original, token.data(), token.size(), &Seal, &tagOnly, &key);
  packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return packet;
}

std::vector<std::uint8_t> MakeRefusal(const InitialHeader& initial) {
  std::vector<std::uint8_t> packet(128);
  const ngtcp2_cid destination = ngtcp2::ToCid(initial.source);
  const ngtcp2_cid ours = ngtcp2::ToCid(initial.destination);
  const PacketKey key = InitialKey(initial.destination, true);
  const ngtcp2_crypto_aead tagOnly = TagOnly();
  const ngtcp2_crypto_aead_ctx aead = Aead(key);
  const ngtcp2_crypto_cipher noCipher = Context().hp;
  const ngtcp2_crypto_cipher_ctx header = HeaderCipher(key);
  const ngtcp2_ssize length = ngtcp2_pkt_write_connection_close(
      packet.data(), packet.size(), NGTCP2_PROTO_VER_V1, &destination, &ours,
      NGTCP2_CONNECTION_REFUSED, nullptr, 0, &Seal, &tagOnly, &aead, kZeroes.data(), &NoHeaderMask,
      &noCipher, &header);
  packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return packet;
}

std::vector<std::uint8_t> MakeReset(
    Bytes datagram, const Tag& token,
    const std::function<void(std::uint8_t*, std::size_t)>& fillRandom) {
  if (datagram.size() <= kResetSize) return {};
  std::vector<std::uint8_t> packet(kResetSize);
  std::vector<std::uint8_t> random(packet.size() - token.size());
  fillRandom(random.data(), random.size());
  const ngtcp2_ssize length = ngtcp2_pkt_write_stateless_reset(
      packet.data(), packet.size(), token.data(), random.data(), random.size());
  packet.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return packet;
}

}  // namespace ptcp
