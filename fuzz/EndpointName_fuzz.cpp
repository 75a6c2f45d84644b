// EndpointName_fuzz.cpp - endpoint paths, and the names that foreign sockets are bound to.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "../platform/fipc/src/ClientName.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool IsPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == name.npos &&
         name.find('\0') == name.npos;
}

// As the kernel hands them over: any family, any bytes, any length.
void ParseForeign(std::string_view input) {
  sockaddr_un address{};
  const std::size_t size = std::min(input.size(), sizeof address);
  std::memcpy(&address, input.data(), size);
  const auto raw = fipc::ParseClientName(address, static_cast<socklen_t>(size));
  Check(!raw || IsPlainName(*raw));
  address.sun_family = AF_UNIX;
  const auto parsed = fipc::ParseClientName(address, static_cast<socklen_t>(size));
  Check(!parsed || IsPlainName(*parsed));
}

// Behind the right prefix, so that the rest of the rules is reached too.
void ParseAlmostOurs(std::string_view input) {
  const std::string text = std::string(1, '\0') + "zarn-ipc/" + std::string(input);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::min(text.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, text.data(), length);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  const auto parsed = fipc::ParseClientName(address, size);
  Check(!parsed || IsPlainName(*parsed));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  ParseForeign(input);
  ParseAlmostOurs(input);
  const keelbase::internal::EndpointPath path(input);
  Check(!path.directory.empty());
  Check(path.name.empty() || IsPlainName(path.name));
  if (path.name.empty()) return 0;
  Check(path.directory.find('\0') == std::string::npos);
  if (const auto made = fipc::MakeClientName(path.name)) {
    const auto back = fipc::ParseClientName(made->address, made->size);
    Check(back && *back == path.name);
  }
  return 0;
}
