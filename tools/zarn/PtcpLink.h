// PtcpLink.h - ptcp:// endpoints.
#pragma once

#include "Link.h"

namespace zarn::tool {

extern const Scheme kPtcpScheme;

}  // namespace zarn::tool
