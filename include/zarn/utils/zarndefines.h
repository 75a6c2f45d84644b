// zarndefines.h - what is exported from the zarnutils library.
#pragma once

#define ZARNUTILS_API __attribute__((visibility("default")))
