// EndpointName.cpp - see EndpointName.h.
#include "EndpointName.h"

#include <fcntl.h>
#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace fipc {

namespace {

constexpr std::string_view kClientPrefix = "zarn-ipc/";
constexpr std::size_t kRandomDigits = 32;
constexpr std::size_t kPathOffset = offsetof(sockaddr_un, sun_path);

SocketName MakeName(std::string_view text, bool terminated) {
  SocketName name;
  name.address.sun_family = AF_UNIX;
  std::memcpy(name.address.sun_path, text.data(), text.size());
  name.size = static_cast<socklen_t>(kPathOffset + text.size() + (terminated ? 1 : 0));
  return name;
}

bool IsEndpointName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

}  // namespace

EndpointPath::EndpointPath(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  directory = slash == std::string_view::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (!IsEndpointName(name)) name.clear();
}

int EndpointAddress::Resolve(const EndpointPath& path) {
  if (path.name.empty()) return EINVAL;
  std::string full = path.directory + "/" + path.name;
  if (full.size() >= sizeof(sockaddr_un::sun_path)) {
    directory_.Reset(::open(path.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) return errno;
    full = "/proc/self/fd/" + std::to_string(directory_.Get()) + "/" + path.name;
    if (full.size() >= sizeof(sockaddr_un::sun_path)) return ENAMETOOLONG;
  }
  name_ = MakeName(full, true);
  return 0;
}

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
  return MakeName(text, false);
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
