// TlsLink.h - tls:// endpoints.
#pragma once

#include "Link.h"

namespace zarn::tool {

extern const Scheme kTlsScheme;

}  // namespace zarn::tool
