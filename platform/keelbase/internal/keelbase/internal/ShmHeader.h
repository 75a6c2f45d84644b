// ShmHeader.h - the page before the memory in the file of a CAWShmBase.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace keelbase::internal {

inline constexpr std::size_t kShmHeaderSize = 4096;

// A file is empty, then kShmMaking, then kShmReady; it is never mapped before that. Whoever changes
// the state, or looks at it in order to attach, holds flock on the file.
inline constexpr std::uint64_t kShmMaking = 0x474e494b414d4853;  // "SHMAKING"
inline constexpr std::uint64_t kShmReady = 0x5944414552514853;   // "SHQREADY"
inline constexpr std::uint32_t kShmVersion = 1;

struct ShmHeader {
  std::uint64_t state;
  std::uint32_t version;
  std::uint32_t lockSize;  // of the lock type, which differs between 32 and 64 bits
  std::uint64_t size;      // of the memory behind this page
  char bootId[40];         // of the machine's start that the lock belongs to; empty: not known
  std::uint32_t held;      // 1 while somebody holds the lock; outlives a restart of the machine
  pthread_mutex_t lock;
};

static_assert(sizeof(ShmHeader) <= kShmHeaderSize);

}  // namespace keelbase::internal
