// TcpSocket.h - bare TCP on 127.0.0.1.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "Bench.h"

namespace bench {

inline sockaddr_in LoopbackAddress(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

inline int MakeTcpSocket() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) FailErrno("socket");
  return fd;
}

inline void SendAtOnce(int fd) {
  const int on = 1;
  if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) FailErrno("TCP_NODELAY");
}

inline int ListenTcp(std::uint16_t& port) {
  const int fd = MakeTcpSocket();
  sockaddr_in address = LoopbackAddress(0);
  socklen_t size = sizeof address;
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::listen(fd, 128) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
    FailErrno("listen");
  port = ntohs(address.sin_port);
  return fd;
}

inline int AcceptTcp(int listener) {
  const int fd = ::accept(listener, nullptr, nullptr);
  if (fd < 0) FailErrno("accept");
  SendAtOnce(fd);
  return fd;
}

inline int ConnectTcp(std::uint16_t port) {
  const int fd = MakeTcpSocket();
  const sockaddr_in address = LoopbackAddress(port);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    FailErrno("connect");
  SendAtOnce(fd);
  return fd;
}

}  // namespace bench
