// HostPort.h - the addresses of network schemes, as host:port.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "keelbase/CAWInetAddr.h"

namespace zarn::tool {

struct HostPort {
  std::string host;  // a name or an IPv4 address
  std::uint16_t port = 0;
};

// Ports are 1 to 65535, without leading zeros.
std::optional<HostPort> ParseHostPort(std::string_view text);

// Looks the host up, which may take a while. Says what is wrong, else nothing.
std::string Resolve(const HostPort& where, keelbase::CAWInetAddr& address);

std::string ToText(const keelbase::CAWInetAddr& address);

}  // namespace zarn::tool
