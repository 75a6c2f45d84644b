// CAWDefines.h - what is exported from the wface library.
#pragma once

#define WFACE_API __attribute__((visibility("default")))
