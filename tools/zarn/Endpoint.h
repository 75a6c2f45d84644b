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

struct Endpoint {
  const Scheme* scheme = nullptr;
  std::string address;  // what follows "://", in the scheme's own form

  std::string GetUrl() const;
};

// Fills `endpoint`, or says in one line what is wrong with `text`; empty when nothing is.
std::string ParseEndpoint(const std::string& text, Endpoint& endpoint);

}  // namespace zarn::tool
