// Transports.h - the transports that keep one contract, each with a peer at its other end. A test
// whose rule holds for every one runs over `AllTransports`.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "RealIpc.h"
#include "RealShmIpc.h"
#include "RealTcp.h"

namespace zarn::test {

struct OverIpc : Connection {
  static constexpr const char* kName = "LocalIpc";
  static constexpr bool kGathers = true;       // small sends, until the turn's end
  static constexpr bool kArrivesWhole = true;  // what the peer has sent is here at once
};

struct OverTcp : tcp::Connection {
  static constexpr const char* kName = "Tcp";
  static constexpr bool kGathers = true;
  static constexpr bool kArrivesWhole = false;
};

template <std::uint32_t kRingSize, bool kAccepted>
struct OverShm : EndWithPeer<ShmTransportSink, ShmPeer> {
  static constexpr bool kGathers = false;
  static constexpr bool kArrivesWhole = true;

  OverShm() : EndWithPeer{{}, ShmPeer(kRingSize, !kAccepted)} { transport = peer.TakeOtherEnd(); }
};
struct OverShmConnected : OverShm<kMinShmRing, false> {
  static constexpr const char* kName = "ShmIpcConnected";
};
struct OverShmAccepted : OverShm<256 * 1024, true> {
  static constexpr const char* kName = "ShmIpcAccepted";
};

using AllTransports = ::testing::Types<OverIpc, OverTcp, OverShmConnected, OverShmAccepted>;
using SocketTransports = ::testing::Types<OverIpc, OverTcp>;
using LocalTransports = ::testing::Types<OverIpc, OverShmConnected, OverShmAccepted>;

struct TransportNames {
  template <class Connection>
  static std::string GetName(int) {
    return Connection::kName;
  }
};

}  // namespace zarn::test
