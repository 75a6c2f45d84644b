// Endpoint.h - endpoints as the user writes them: urls and pairs of numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zarn::tool {

// The two numbers of an endpoint, in the order of its name: 3_4 has 3 first.
struct Pair {
  std::uint16_t first = 0;
  std::uint16_t second = 0;
};

// Decimal, without sign, blanks or leading zeros, so that each number has one spelling.
std::optional<std::uint16_t> ParseNumber(std::string_view text);
std::optional<Pair> ParsePair(std::string_view text);
std::string ToText(const Pair& pair);

struct Scheme;

// What tls:// endpoints are told besides; empty: not given. All but the name are texts as
// sslutils/CAWSSLManager.h has them, as a rule paths.
struct Security {
  std::string key;
  std::string certificate;
  std::string authorities;        // a client trusts these, too
  std::string serverName;         // that a client asks for; empty: the host of the url
  std::string clientAuthorities;  // a server asks for a certificate of one of these
};

struct Endpoint {
  const Scheme* scheme = nullptr;
  std::string address;  // what follows "://", in the scheme's own form
  Security security;

  std::string GetUrl() const;
};

// Fills scheme and address, or says in one line what is wrong with `text`, else nothing.
std::string ParseEndpoint(const std::string& text, Endpoint& endpoint);

}  // namespace zarn::tool
