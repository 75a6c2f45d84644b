// zarnversion.h - which library a process has loaded.
#pragma once

#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// Of the library that is loaded, which may be another one than a program was compiled with. The
// texts are static. Any thread.
ZARNUTILS_API const char* ZARNLibVersion();  // "1.0.0"
ZARNUTILS_API const char* ZARNLibBuild();    // compiler, language, checks, libraries; for people

}  // namespace zarn::utils
