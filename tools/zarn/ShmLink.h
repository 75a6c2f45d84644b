// ShmLink.h - links over shared memory: shm://X_Y.
#pragma once

#include "Link.h"

namespace zarn::tool {

extern const Scheme kShmScheme;

}  // namespace zarn::tool
