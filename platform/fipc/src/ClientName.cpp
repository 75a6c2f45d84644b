// ClientName.cpp - see ClientName.h.
#include "ClientName.h"

#include <sys/random.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace fipc {

using keelbase::internal::IsEndpointName;
using keelbase::internal::SocketName;

namespace {

constexpr std::string_view kClientPrefix = "zarn-ipc/";
constexpr std::size_t kRandomDigits = 32;
constexpr std::size_t kPathOffset = offsetof(sockaddr_un, sun_path);

}  // namespace

std::optional<SocketName> MakeClientName(std::string_view name) {
  std::array<std::uint8_t, kRandomDigits / 2> random;
  if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
    return std::nullopt;
  std::string text(1, '\0');
  text.append(kClientPrefix).append(name).append("/");
  for (const std::uint8_t byte : random) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 15]);
  }
  if (text.size() > sizeof(sockaddr_un::sun_path)) return std::nullopt;
  return SocketName::OfAbstract(text);
}

std::optional<std::string> ParseClientName(const sockaddr_un& address, socklen_t size) {
  if (address.sun_family != AF_UNIX || size <= kPathOffset || size > sizeof address)
    return std::nullopt;
  std::string_view text(address.sun_path, size - kPathOffset);
  if (text.size() < 1 + kClientPrefix.size() + 1 + kRandomDigits || text[0] != '\0')
    return std::nullopt;
  text.remove_prefix(1);
  if (text.substr(0, kClientPrefix.size()) != kClientPrefix) return std::nullopt;
  text.remove_prefix(kClientPrefix.size());
  const std::size_t end = text.size() - kRandomDigits - 1;
  const std::string_view name = text.substr(0, end);
  if (text[end] != '/' || !IsEndpointName(name)) return std::nullopt;
  return std::string(name);
}

}  // namespace fipc
