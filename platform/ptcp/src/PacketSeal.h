// PacketSeal.h - the keyed tag as the packet protection that ngtcp2 asks for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Ngtcp2.h"
#include "PacketKey.h"
#include "StreamGaps.h"

namespace ptcp {

inline constexpr std::size_t kNonceSize = 12;
inline constexpr std::array<std::uint8_t, kNonceSize>
    kZeroes{};  // then a nonce is the packet number

// The keys are referred to and must stay.
ngtcp2_crypto_aead_ctx Aead(const PacketKey& key);
ngtcp2_crypto_cipher_ctx HeaderCipher(const PacketKey& key);
ngtcp2_crypto_aead TagOnly();
// `gaps` sees what comes of the stream, and must stay.
ngtcp2_crypto_ctx Context(StreamGaps* gaps = nullptr);

// Of the first packets, by the id that the client has made up for the server (or was given by a
// Retry). It also says which way, so that no packet can be sent back to its sender.
PacketKey InitialKey(const ConnectionId& id, bool fromServer);

// Everybody knows it: a Retry packet is sealed against accidents only.
const PacketKey& RetryKey();

// In the shapes in which ngtcp2 calls them.
int Seal(std::uint8_t* dest, const ngtcp2_crypto_aead* aead, const ngtcp2_crypto_aead_ctx* context,
         const std::uint8_t* plain, std::size_t length, const std::uint8_t* nonce,
         std::size_t nonceLength, const std::uint8_t* header, std::size_t headerLength);
int Unseal(std::uint8_t* dest, const ngtcp2_crypto_aead* aead,
           const ngtcp2_crypto_aead_ctx* context, const std::uint8_t* sealed, std::size_t length,
           const std::uint8_t* nonce, std::size_t nonceLength, const std::uint8_t* header,
           std::size_t headerLength);
int NoHeaderMask(std::uint8_t* dest, const ngtcp2_crypto_cipher* cipher,
                 const ngtcp2_crypto_cipher_ctx* context, const std::uint8_t* sample);

}  // namespace ptcp
