// EndpointPath.h - the path of an endpoint file, and as what a socket takes it.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <string_view>

#include "keelbase/CAWDefines.h"
#include "keelbase/internal/FileDescriptor.h"

namespace keelbase::internal {

// A path split at its last '/'.
struct KEELBASE_API EndpointPath {
  explicit EndpointPath(std::string_view path);
  std::string directory;  // "." when the path has none
  std::string name;       // not empty, else the path names no endpoint
};

// Whether it can be the name of a file in a directory.
KEELBASE_API bool IsEndpointName(std::string_view name);

// A socket address; `size` is what bind and connect take.
struct SocketName {
  sockaddr_un address{};
  socklen_t size = 0;

  // `text` must fit, with a zero behind it when it is a path.
  static KEELBASE_API SocketName OfPath(std::string_view text);
  static KEELBASE_API SocketName OfAbstract(std::string_view text);
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

// The endpoint file as a socket address. A path that is too long for one goes through a descriptor
// of its directory, which must stay open while the address is in use.
class KEELBASE_API EndpointAddress {
 public:
  // 0 or an errno value.
  int Resolve(const EndpointPath& path);
  const sockaddr* Get() const { return name_.Get(); }
  socklen_t Size() const { return name_.size; }

 private:
  FileDescriptor directory_;
  SocketName name_;
};

}  // namespace keelbase::internal
