// CAWInetAddr.h - an IPv4 address and port.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"

namespace keelbase {

// A value: copies freely, one thread at a time, as any value. Ports and addresses are given and
// answered in the machine's byte order; only GetPtr() shows them in network order.
class KEELBASE_API CAWInetAddr {
 public:
  CAWInetAddr() { Set(0U, 0); }                 // 0.0.0.0:0
  explicit CAWInetAddr(int) : CAWInetAddr() {}  // the same, whatever the number
  CAWInetAddr(const char* host, std::uint16_t port) { Set(host, port); }
  CAWInetAddr(std::uint32_t hostOrderIp, std::uint16_t port) { Set(hostOrderIp, port); }

  // `host` is dotted text or a name. A name is looked up, which may block for seconds: not on a
  // thread with a loop. 0; 10001 when it does not resolve or is null: the address is 0.0.0.0:0
  // then.
  AWResult Set(const char* host, std::uint16_t port);
  AWResult Set(std::uint32_t hostOrderIp, std::uint16_t port);  // always 0

  CAWString GetIpDisplayName() const;  // "127.0.0.1"
  std::uint16_t GetPort() const;
  void SetPort(std::uint16_t port);

  // For socket calls. The pointer is good as long as the object.
  const sockaddr* GetPtr() const { return reinterpret_cast<const sockaddr*>(&address_); }
  socklen_t GetSize() const { return sizeof(address_); }

  // Ordered by address, then by port, both as numbers.
  friend bool operator==(const CAWInetAddr& a, const CAWInetAddr& b) { return a.Key() == b.Key(); }
  friend bool operator!=(const CAWInetAddr& a, const CAWInetAddr& b) { return a.Key() != b.Key(); }
  friend bool operator<(const CAWInetAddr& a, const CAWInetAddr& b) { return a.Key() < b.Key(); }

 private:
  friend struct std::hash<CAWInetAddr>;
  std::uint64_t Key() const;

  sockaddr_in address_{};
};

}  // namespace keelbase

template <>
struct std::hash<keelbase::CAWInetAddr> {
  std::size_t operator()(const keelbase::CAWInetAddr& address) const noexcept {
    return std::hash<std::uint64_t>()(address.Key());
  }
};
