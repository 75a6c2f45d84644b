// EndpointPath.cpp - see EndpointPath.h.
#include "keelbase/internal/EndpointPath.h"

#include <fcntl.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace keelbase::internal {

namespace {

SocketName MakeName(std::string_view text, std::size_t zeros) {
  SocketName name;
  name.address.sun_family = AF_UNIX;
  std::memcpy(name.address.sun_path, text.data(), text.size());
  name.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + zeros);
  return name;
}

}  // namespace

SocketName SocketName::OfPath(std::string_view text) { return MakeName(text, 1); }
SocketName SocketName::OfAbstract(std::string_view text) { return MakeName(text, 0); }

bool IsEndpointName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

EndpointPath::EndpointPath(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  directory = slash == std::string_view::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  // The system would take such a directory for another one, which ends at the NUL.
  if (!IsEndpointName(name) || directory.find('\0') != std::string::npos) name.clear();
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
  name_ = SocketName::OfPath(full);
  return 0;
}

}  // namespace keelbase::internal
