// ClockAndRandom.cpp - see ClockAndRandom.h.
#include "ClockAndRandom.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "keelbase/internal/Clock.h"
#include "keelbase/internal/TraceError.h"
#include "keelbase/internal/Uninterrupted.h"

namespace ptcp {

Time Now() {
  return static_cast<Time>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                               keelbase::internal::Clock::Now().time_since_epoch())
                               .count());
}

// Fails on no kernel that has it for so few bytes; whoever sees zeroes has no connection, no more.
void FillWithRandom(std::uint8_t* out, std::size_t length) {
  std::memset(out, 0, length);
  const ssize_t count =
      keelbase::internal::Uninterrupted([&] { return ::getrandom(out, length, 0); });
  if (count < 0) keelbase::internal::TraceError("no random numbers", errno);
}

PacketKey RandomKey() {
  std::array<std::uint8_t, 32> secret;
  FillWithRandom(secret.data(), secret.size());
  return PacketKey(secret);
}

std::uint64_t RandomSeed() {
  std::array<std::uint8_t, 8> bytes;
  FillWithRandom(bytes.data(), bytes.size());
  std::uint64_t seed;
  std::memcpy(&seed, bytes.data(), sizeof seed);
  return seed;
}

}  // namespace ptcp
