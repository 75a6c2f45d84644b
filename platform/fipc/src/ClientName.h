// ClientName.h - what a connector of local IPC calls itself.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "keelbase/internal/EndpointPath.h"

namespace fipc {

// The abstract name of a connector whose own endpoint is called `name`: a prefix, the name and 128
// random bits. Nothing when the name does not fit.
std::optional<keelbase::internal::SocketName> MakeClientName(std::string_view name);

// The name that such an address carries; nothing for any other address.
std::optional<std::string> ParseClientName(const sockaddr_un& address, socklen_t size);

}  // namespace fipc
