// TcpLink.h - tcp:// endpoints.
#pragma once

#include "Link.h"

namespace zarn::tool {

extern const Scheme kTcpScheme;

}  // namespace zarn::tool
