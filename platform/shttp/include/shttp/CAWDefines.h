// CAWDefines.h - what is exported from the shttp library.
#pragma once

#define SHTTP_API __attribute__((visibility("default")))
