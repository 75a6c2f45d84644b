// EndpointName.h - the names of Unix sockets: endpoint files, and what a connector calls itself.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <string_view>

#include "keelbase/internal/FileDescriptor.h"

namespace fipc {

using keelbase::internal::FileDescriptor;

// A path split at its last '/'.
struct EndpointPath {
  explicit EndpointPath(std::string_view path);
  std::string directory;  // "." when the path has none
  std::string name;       // not empty, else the path names no endpoint
};

// A socket address; `size` is what bind and connect take.
struct SocketName {
  sockaddr_un address{};
  socklen_t size = 0;
};

// The endpoint file as a socket address. A path that is too long for one goes through a descriptor
// of its directory, which must stay open while the address is in use.
class EndpointAddress {
 public:
  // 0 or an errno value.
  int Resolve(const EndpointPath& path);
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&name_.address); }
  socklen_t Size() const { return name_.size; }

 private:
  FileDescriptor directory_;
  SocketName name_;
};

// The abstract name of a connector whose own endpoint is called `name`: a prefix, the name and 128
// random bits. Nothing when the name does not fit.
std::optional<SocketName> MakeClientName(std::string_view name);

// The name that such an address carries; nothing for any other address.
std::optional<std::string> ParseClientName(const sockaddr_un& address, socklen_t size);

}  // namespace fipc
