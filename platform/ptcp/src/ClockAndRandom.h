// ClockAndRandom.h - the time and the random bits that connections are given.
#pragma once

#include <cstddef>
#include <cstdint>

#include "PacketKey.h"
#include "PtcpConnection.h"

namespace ptcp {

Time Now();
void FillWithRandom(std::uint8_t* out, std::size_t length);
PacketKey RandomKey();
std::uint64_t RandomSeed();

}  // namespace ptcp
