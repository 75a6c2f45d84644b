// TcpSocket.cpp - see TcpSocket.h.
#include "TcpSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>

#include "wface/CAWTransport.h"

namespace wface {

using keelbase::CAWInetAddr;

namespace {

bool Set(int socket, int level, int option, int value) {
  return ::setsockopt(socket, level, option, &value, sizeof value) == 0;
}

using NameCall = int (*)(int, sockaddr*, socklen_t*);

int ReadAddress(NameCall call, int socket, CAWInetAddr& out) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (call(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return errno;
  out.Set(ntohl(address.sin_addr.s_addr), ntohs(address.sin_port));
  return 0;
}

}  // namespace

void SetTcpDefaults(int socket) {
  Set(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  Set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetSilenceLimit(socket, kDefaultSilenceMs);
}

// A third of the time idle, then four probes until all of it is over.
bool SetSilenceLimit(int socket, std::uint32_t milliseconds) {
  if (milliseconds < AW_SILENCE_LIMIT_MIN || milliseconds > AW_SILENCE_LIMIT_MAX) return false;
  const int thirdSeconds = static_cast<int>(milliseconds / 3000);
  const int sixthSeconds = thirdSeconds > 1 ? thirdSeconds / 2 : 1;
  return Set(socket, IPPROTO_TCP, TCP_KEEPIDLE, thirdSeconds) &&
         Set(socket, IPPROTO_TCP, TCP_KEEPINTVL, sixthSeconds) &&
         Set(socket, IPPROTO_TCP, TCP_KEEPCNT, 4) &&
         Set(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(milliseconds));
}

int GetLocalAddress(int socket, CAWInetAddr& out) {
  return ReadAddress(&::getsockname, socket, out);
}

int GetEnds(int socket, TcpEnds& out) {
  const int error = ReadAddress(&::getpeername, socket, out.peer);
  return error != 0 ? error : GetLocalAddress(socket, out.local);
}

}  // namespace wface
