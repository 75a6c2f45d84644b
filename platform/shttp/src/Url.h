// Url.h - the url of a request, taken apart.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace shttp {

struct Url {
  bool tls = false;
  std::string host;  // a name or an IPv4 address
  std::uint16_t port = 0;
  std::string target;     // path and query, from '/' on
  std::string hostField;  // what the server is told: host, and a port that is not the scheme's
};

// 0, or why it is refused: EINVAL, EPROTONOSUPPORT (another scheme), EAFNOSUPPORT (an IPv6
// address). A fragment is left out. User name and password in a url are refused: it ends up in
// logs.
int ParseUrl(std::string_view text, Url& out);

}  // namespace shttp
