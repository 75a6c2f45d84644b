// HostPort.cpp - see HostPort.h.
#include "HostPort.h"

#include <fmt/format.h>

#include "Endpoint.h"

namespace zarn::tool {

std::optional<HostPort> ParseHostPort(std::string_view text) {
  const std::size_t middle = text.rfind(':');
  if (middle == std::string_view::npos || middle == 0) return std::nullopt;
  const auto port = ParseNumber(text.substr(middle + 1));
  const std::string_view host = text.substr(0, middle);
  if (!port || *port == 0 || host.find_first_of(":/@ \t") != std::string_view::npos)
    return std::nullopt;
  return HostPort{std::string(host), *port};
}

std::string Resolve(const HostPort& where, keelbase::CAWInetAddr& address) {
  if (address.Set(where.host.c_str(), where.port) == keelbase::AW_OK) return {};
  return fmt::format("'{}' is neither an IPv4 address nor a name that has one", where.host);
}

std::string ToText(const keelbase::CAWInetAddr& address) {
  return fmt::format("{}:{}", address.GetIpDisplayName(), address.GetPort());
}

}  // namespace zarn::tool
