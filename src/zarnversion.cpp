// zarnversion.cpp - see zarnversion.h.
#include "zarn/utils/zarnversion.h"

#include <features.h>

#define ZARN_TEXT_OF_VALUE(value) #value
#define ZARN_TEXT_OF(macro) ZARN_TEXT_OF_VALUE(macro)

#ifdef __clang__
#define ZARN_COMPILER "Clang " __clang_version__
#else
#define ZARN_COMPILER "GCC " __VERSION__
#endif

#ifdef NDEBUG
#define ZARN_CHECKS "without debug checks"
#else
#define ZARN_CHECKS "with debug checks"
#endif

#define ZARN_GLIBC "glibc " ZARN_TEXT_OF(__GLIBC__) "." ZARN_TEXT_OF(__GLIBC_MINOR__)

namespace zarn::utils {

const char* ZARNLibVersion() { return ZARN_VERSION; }

const char* ZARNLibBuild() {
  return ZARN_COMPILER ", C++20, " ZARN_CHECKS "; " ZARN_GLIBC ", xxHash " ZARN_XXHASH_VERSION;
}

}  // namespace zarn::utils
