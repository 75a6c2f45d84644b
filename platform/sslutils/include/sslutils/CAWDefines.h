// CAWDefines.h - what is exported from the sslutils library.
#pragma once

#define SSLUTILS_API __attribute__((visibility("default")))
