// Url.cpp - see Url.h.
#include "Url.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <system_error>

namespace shttp {

namespace {

constexpr std::size_t kMaxLength = 8192;
constexpr std::size_t kMaxHostLength = 253;
constexpr std::size_t kPortDigits = 5;

struct Scheme {
  std::string_view name;
  bool tls;
  std::uint16_t port;
};
constexpr Scheme kSchemes[] = {{"http", false, 80}, {"https", true, 443}};

const Scheme* FindScheme(std::string_view name) {
  for (const Scheme& scheme : kSchemes) {
    if (name.size() == scheme.name.size() &&
        ::strncasecmp(name.data(), scheme.name.data(), name.size()) == 0)
      return &scheme;
  }
  return nullptr;
}

// Anything else is to be percent-encoded by whoever makes the url.
bool IsVisible(char c) { return c > ' ' && c < '\x7f'; }

bool IsHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_';
}

bool IsHost(std::string_view text) {
  return !text.empty() && text.size() <= kMaxHostLength &&
         std::all_of(text.begin(), text.end(), IsHostCharacter) && text.front() != '.' &&
         text.find("..") == std::string_view::npos;
}

std::optional<std::uint16_t> ParsePort(std::string_view text) {
  std::uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, port);
  if (text.size() > kPortDigits || error != std::errc() || stop != end || port == 0)
    return std::nullopt;
  return port;
}

int ParseAuthority(std::string_view text, std::uint16_t standardPort, Url& out) {
  if (text.find('@') != std::string_view::npos) return EINVAL;
  if (!text.empty() && text.front() == '[') return EAFNOSUPPORT;
  const std::size_t colon = text.find(':');
  const std::string_view host = text.substr(0, colon);
  if (!IsHost(host)) return EINVAL;
  out.host = host;
  out.hostField = host;
  out.port = standardPort;
  if (colon == std::string_view::npos || colon + 1 == text.size()) return 0;
  const auto port = ParsePort(text.substr(colon + 1));
  if (!port) return EINVAL;
  out.port = *port;
  if (*port != standardPort) out.hostField += ':' + std::to_string(*port);
  return 0;
}

}  // namespace

int ParseUrl(std::string_view text, Url& out) {
  if (text.size() > kMaxLength || !std::all_of(text.begin(), text.end(), IsVisible)) return EINVAL;
  const std::size_t colon = text.find("://");
  if (colon == std::string_view::npos) return EINVAL;
  const Scheme* scheme = FindScheme(text.substr(0, colon));
  if (scheme == nullptr) return EPROTONOSUPPORT;
  out.tls = scheme->tls;
  text.remove_prefix(colon + 3);
  text = text.substr(0, text.find('#'));
  const std::size_t end = std::min(text.find_first_of("/?"), text.size());
  if (const int error = ParseAuthority(text.substr(0, end), scheme->port, out); error != 0)
    return error;
  out.target = text.substr(end);
  if (out.target.empty() || out.target.front() != '/') out.target.insert(0, 1, '/');
  return 0;
}

}  // namespace shttp
