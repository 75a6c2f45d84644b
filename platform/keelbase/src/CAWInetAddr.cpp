// CAWInetAddr.cpp - an IPv4 address and port.
#include "keelbase/CAWInetAddr.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>
#include <memory>

namespace keelbase {
namespace {

bool Resolve(const char* host, in_addr& out) {
  if (::inet_pton(AF_INET, host, &out) == 1) return true;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;  // one entry an address, not one for each kind of socket
  addrinfo* found = nullptr;
  if (::getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) return false;
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(found, &::freeaddrinfo);
  sockaddr_in first{};
  std::memcpy(&first, found->ai_addr, sizeof(first));
  out = first.sin_addr;
  return true;
}

}  // namespace

AWResult CAWInetAddr::Set(const char* host, std::uint16_t port) {
  in_addr ip{};
  if (host == nullptr || !Resolve(host, ip)) {
    Set(0U, 0);
    return AW_ERROR_FAILURE;
  }
  return Set(ntohl(ip.s_addr), port);
}

AWResult CAWInetAddr::Set(std::uint32_t hostOrderIp, std::uint16_t port) {
  address_.sin_family = AF_INET;
  address_.sin_addr.s_addr = htonl(hostOrderIp);
  address_.sin_port = htons(port);
  return AW_OK;
}

CAWString CAWInetAddr::GetIpDisplayName() const {
  char text[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, &address_.sin_addr, text, sizeof(text));
  return text;
}

std::uint16_t CAWInetAddr::GetPort() const { return ntohs(address_.sin_port); }

void CAWInetAddr::SetPort(std::uint16_t port) { address_.sin_port = htons(port); }

std::uint64_t CAWInetAddr::Key() const {
  return std::uint64_t{ntohl(address_.sin_addr.s_addr)} << 16 | GetPort();
}

}  // namespace keelbase
