// TlsLink.h - tls:// endpoints, over TCP, and ptls:// endpoints, over pseudo-TCP.
#pragma once

#include "Link.h"

namespace zarn::tool {

extern const Scheme kTlsScheme;
extern const Scheme kPtlsScheme;

}  // namespace zarn::tool
