// Endpoint.cpp - see Endpoint.h.
#include "Endpoint.h"

#include <fmt/format.h>

#include <charconv>

#include "Link.h"

namespace zarn::tool {

std::optional<std::uint16_t> ParseNumber(std::string_view text) {
  std::uint16_t number = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (text.empty() || result.ec != std::errc() || result.ptr != end) return std::nullopt;
  if (text.size() > 1 && text[0] == '0') return std::nullopt;
  return number;
}

std::optional<Pair> ParsePair(std::string_view text) {
  const std::size_t middle = text.find('_');
  if (middle == std::string_view::npos) return std::nullopt;
  const auto first = ParseNumber(text.substr(0, middle));
  const auto second = ParseNumber(text.substr(middle + 1));
  if (!first || !second) return std::nullopt;
  return Pair{*first, *second};
}

std::string ToText(const Pair& pair) { return fmt::format("{}_{}", pair.first, pair.second); }

std::string Endpoint::GetUrl() const { return fmt::format("{}://{}", scheme->name, address); }

std::string ParseEndpoint(const std::string& text, Endpoint& endpoint) {
  const std::size_t end = text.find("://");
  if (end == std::string::npos)
    return fmt::format(
        "'{}' is not a url; endpoints are written as ipc://1_2, shm://1_2, tcp://host:7000 or "
        "tls://host:7443",
        text);
  const Scheme* scheme = FindScheme(std::string_view(text).substr(0, end));
  if (scheme == nullptr)
    return fmt::format("'{}': unknown scheme; there is {}", text, ListSchemes());
  const std::string address = text.substr(end + 3);
  if (!scheme->isAddress(address)) return fmt::format("'{}': the form is {}", text, scheme->form);
  endpoint.scheme = scheme;
  endpoint.address = address;
  return {};
}

}  // namespace zarn::tool
