// PacketKey.cpp - see PacketKey.h.
#include "PacketKey.h"

#include <cstring>

#define XXH_STATIC_LINKING_ONLY
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace ptcp {

PacketKey::PacketKey(Bytes material) {
  static_assert(kSecretSize >= XXH3_SECRET_SIZE_MIN);
  XXH3_generateSecret(secret_.data(), secret_.size(), material.data(), material.size());
}

Tag PacketKey::Sign(std::initializer_list<Bytes> parts) const {
  XXH3_state_t state;
  XXH3_INITSTATE(&state);
  XXH3_128bits_reset_withSecret(&state, secret_.data(), secret_.size());
  for (const Bytes part : parts) XXH3_128bits_update(&state, part.data(), part.size());
  XXH128_canonical_t canonical;
  XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(&state));
  Tag tag;
  static_assert(sizeof tag == sizeof canonical.digest);
  std::memcpy(tag.data(), canonical.digest, sizeof tag);
  return tag;
}

}  // namespace ptcp
