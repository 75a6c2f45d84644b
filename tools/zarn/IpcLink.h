// IpcLink.h - links over local IPC: ipc://X_Y.
#pragma once

#include "Link.h"

namespace zarn::tool {

extern const Scheme kIpcScheme;

}  // namespace zarn::tool
