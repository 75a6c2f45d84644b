// PacketSeal.cpp - see PacketSeal.h.
#include "PacketSeal.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "FrameFilter.h"

namespace ptcp {

ngtcp2_crypto_aead_ctx Aead(const PacketKey& key) { return {const_cast<PacketKey*>(&key)}; }
ngtcp2_crypto_cipher_ctx HeaderCipher(const PacketKey& key) {
  return {const_cast<PacketKey*>(&key)};
}

PacketKey InitialKey(const ConnectionId& id, bool fromServer) {
  std::array<std::uint8_t, ConnectionId::kMaxSize + 1> material;
  std::copy_n(id.bytes.begin(), id.size, material.begin());
  material[id.size] = fromServer ? 1 : 0;
  return PacketKey(Bytes(material).first(id.size + 1));
}

const PacketKey& RetryKey() {
  static const PacketKey key;
  return key;
}

ngtcp2_crypto_aead TagOnly() {
  ngtcp2_crypto_aead aead{};
  aead.max_overhead = kTagSize;
  return aead;
}

ngtcp2_crypto_ctx Context(StreamGaps* gaps) {
  ngtcp2_crypto_ctx context{};
  context.aead = TagOnly();
  context.aead.native_handle = gaps;
  context.max_encryption = UINT64_MAX;
  context.max_decryption_failure = UINT64_MAX;
  return context;
}

namespace {

Tag SignPacket(const ngtcp2_crypto_aead_ctx* context, Bytes header, Bytes nonce, Bytes payload) {
  return static_cast<const PacketKey*>(context->native_handle)->Sign({header, nonce, payload});
}

std::uint64_t PacketNumberOf(Bytes nonce) {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : nonce) number = number << 8 | byte;
  return number;
}

// Without memory the packet is lost.
bool LeavesFewGaps(const ngtcp2_crypto_aead& aead, Bytes nonce, Bytes frames) {
  auto* const gaps = static_cast<StreamGaps*>(aead.native_handle);
  try {
    return gaps == nullptr || gaps->Accept(PacketNumberOf(nonce), frames);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

int Seal(std::uint8_t* dest, const ngtcp2_crypto_aead*, const ngtcp2_crypto_aead_ctx* context,
         const std::uint8_t* plain, std::size_t length, const std::uint8_t* nonce,
         std::size_t nonceLength, const std::uint8_t* header, std::size_t headerLength) {
  const Tag tag =
      SignPacket(context, {header, headerLength}, {nonce, nonceLength}, {plain, length});
  if (length != 0 && dest != plain) std::memmove(dest, plain, length);
  std::memcpy(dest + length, tag.data(), tag.size());
  return 0;
}

// The nonce is the whole packet number, of which only the end is on the wire: a late duplicate is
// decoded as a packet of the future, and the tag is what gives it away.
int Unseal(std::uint8_t* dest, const ngtcp2_crypto_aead* aead,
           const ngtcp2_crypto_aead_ctx* context, const std::uint8_t* sealed, std::size_t length,
           const std::uint8_t* nonce, std::size_t nonceLength, const std::uint8_t* header,
           std::size_t headerLength) {
  if (length < kTagSize) return NGTCP2_ERR_DECRYPT;
  length -= kTagSize;
  const Tag tag =
      SignPacket(context, {header, headerLength}, {nonce, nonceLength}, {sealed, length});
  if (std::memcmp(tag.data(), sealed + length, tag.size()) != 0) return NGTCP2_ERR_DECRYPT;
  const Bytes frames(sealed, length);
  if (!AreOurFrames(frames) || !LeavesFewGaps(*aead, {nonce, nonceLength}, frames))
    return NGTCP2_ERR_DECRYPT;
  if (length != 0 && dest != sealed) std::memmove(dest, sealed, length);
  return 0;
}

int NoHeaderMask(std::uint8_t* dest, const ngtcp2_crypto_cipher*, const ngtcp2_crypto_cipher_ctx*,
                 const std::uint8_t*) {
  std::memset(dest, 0, NGTCP2_HP_MASKLEN);
  return 0;
}

}  // namespace ptcp
