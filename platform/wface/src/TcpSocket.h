// TcpSocket.h - what every TCP socket of ours is set to.
#pragma once

#include <cstdint>

#include "keelbase/CAWInetAddr.h"

namespace wface {

inline constexpr std::uint32_t kDefaultSilenceMs = 30000;

// Accepted sockets have all this from their listener.
void SetTcpDefaults(int socket);

// See AW_OPT_SILENCE_LIMIT. False when it is out of range or refused.
bool SetSilenceLimit(int socket, std::uint32_t milliseconds);

// 0 or an errno value.
int GetLocalAddress(int socket, keelbase::CAWInetAddr& out);

struct TcpEnds {
  keelbase::CAWInetAddr local;
  keelbase::CAWInetAddr peer;
};

// 0 or an errno value: ENOTCONN while the socket is not connected, or when its peer has gone.
int GetEnds(int socket, TcpEnds& out);

}  // namespace wface
