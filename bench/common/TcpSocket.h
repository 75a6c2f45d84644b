// TcpSocket.h - bare TCP.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "Bench.h"

namespace bench {

inline sockaddr_in MakeTcpAddress(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, GetAddress().c_str(), &address.sin_addr);
  address.sin_port = htons(port);
  return address;
}

// `congestion`: Options::congestion. Accepted sockets have that of the listening one.
inline int MakeTcpSocket(const std::string& congestion) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) FailErrno("socket");
  if (!congestion.empty() && ::setsockopt(fd, IPPROTO_TCP, TCP_CONGESTION, congestion.data(),
                                          static_cast<socklen_t>(congestion.size())) != 0)
    FailErrno("congestion control " + congestion);
  return fd;
}

inline void SendAtOnce(int fd) {
  const int on = 1;
  if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) FailErrno("TCP_NODELAY");
}

inline int ListenTcp(std::uint16_t& port, const std::string& congestion = {}) {
  const int fd = MakeTcpSocket(congestion);
  sockaddr_in address = MakeTcpAddress(0);
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

inline int ConnectTcp(std::uint16_t port, const std::string& congestion = {}) {
  const int fd = MakeTcpSocket(congestion);
  const sockaddr_in address = MakeTcpAddress(port);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    FailErrno("connect");
  SendAtOnce(fd);
  return fd;
}

}  // namespace bench
