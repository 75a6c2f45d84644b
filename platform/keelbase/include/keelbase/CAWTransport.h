// CAWTransport.h - what the transports of all platform libraries have in common: option codes,
// counters.
#pragma once

#include <cstdint>

namespace keelbase {

// Codes of GetOption and SetOption; behind each the type that the pointer refers to. Unless said
// otherwise a code that a transport does not know answers 10001. 116 is internal; from 120 on
// follow the codes of the libraries above.
enum CAWTransportOption : int {
  // Get: the library's address type.
  AW_OPT_LOCAL_ADDRESS = 104,
  AW_OPT_PEER_ADDRESS = 105,

  // Set, bool: true stops reading from the peer, whose end is still noticed: what it had sent by
  // then is delivered first. false reads on.
  AW_OPT_STOP_READING = 110,

  // Get, CAWTransportCounters.
  AW_OPT_COUNTERS = 111,

  // Set, std::uint32_t, milliseconds: how long Disconnect goes on writing what was taken, and waits
  // for the peer's end where its bytes are unread and something was sent. Default 2000; 0 drops at
  // once whatever the system does not take at once.
  AW_OPT_LINGER = 112,

  // Set, CAWMessageBlock (a chain): bytes to write after all that was taken, during the linger that
  // the next Disconnect starts. Owned bytes are shared, borrowed ones copied; the chain is left as
  // it is.
  AW_OPT_LINGER_DATA = 113,

  // Get, CAWPeerCredentials, where the system knows them (local transports).
  AW_OPT_PEER_CREDENTIALS = 114,

  // Set, std::uint32_t, bytes: the most that one receive event brings from now on, 1 to 65535 (what
  // is outside counts as the nearest of these). Default 65535. For a receiver that holds the start
  // of a frame: the less comes behind its end, the less of the next frame has to be moved. The
  // framed streams of zarn::utils set it as they go, whatever it was before.
  AW_OPT_READ_SIZE = 115,
};

// What a transport has done since it was made. Bytes are those that the system took or gave
// (pseudo-TCP and TLS count otherwise, see there).
struct CAWTransportCounters {
  std::uint64_t blocksSent = 0;      // SendData calls that took anything
  std::uint64_t blocksReceived = 0;  // receive events
  std::uint64_t bytesSent = 0;
  std::uint64_t bytesReceived = 0;
  std::uint64_t systemCallsSent = 0;  // writes: far fewer than blocks, as small ones are gathered
  std::uint64_t partialSends = 0;     // answers of 10013
  std::uint64_t queuedBytes = 0;      // taken from the caller, not yet by the system
  std::uint64_t queuedHighMark = 0;
};

// Who is at the other end, as the kernel says. A process may have handed its socket on.
struct CAWPeerCredentials {
  std::int32_t processId = 0;
  std::uint32_t userId = 0;
  std::uint32_t groupId = 0;
};

}  // namespace keelbase
