// CAWSocketUdp.cpp - a UDP socket.
#include "keelbase/CAWSocketUdp.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "keelbase/internal/FileDescriptor.h"

namespace keelbase {

AWResult CAWSocketUdp::Open(const CAWInetAddr& local) {
  if (handle_ >= 0) return AW_ERROR_FAILURE;
  internal::FileDescriptor made(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!made || ::bind(made.Get(), local.GetPtr(), local.GetSize()) != 0) {
    return static_cast<AWResult>(errno);
  }
  handle_ = made.Release();
  return AW_OK;
}

AWResult CAWSocketUdp::GetLocalAddr(CAWInetAddr& out) const {
  if (handle_ < 0) return AW_ERROR_NOT_INITIALIZED;
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  if (::getsockname(handle_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return static_cast<AWResult>(errno);
  }
  return out.Set(ntohl(address.sin_addr.s_addr), ntohs(address.sin_port));
}

AWResult CAWSocketUdp::Close() {
  const internal::FileDescriptor closing(std::exchange(handle_, -1));
  return AW_OK;
}

}  // namespace keelbase
