// CZARNStreamCounters.h - what a stream has done since it was made.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zarn::utils {

// Kept over all connections of one stream. A message is one SendMsg that was accepted, and one
// frame that the handler took; bytes are those handed to SendMsg and those that arrived.
struct CZARNStreamCounters {
  std::uint64_t messagesSent = 0;
  std::uint64_t messagesReceived = 0;
  std::uint64_t bytesSent = 0;
  std::uint64_t bytesReceived = 0;
  std::uint64_t connects = 0;  // connections attached, by a connect or by SetTransportHandle
  std::uint64_t connectFailures = 0;
  std::uint64_t malformedFrames = 0;
  std::size_t sendQueueHighMark = 0;  // most bytes that ever waited in the send queue
  long lastDisconnectReason = 0;      // of the last OnPeerDisconnect or OnConnectFailure
};

}  // namespace zarn::utils
