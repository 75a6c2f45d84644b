// CAWDefines.h - what is exported from the fipc library.
#pragma once

#define FIPC_API __attribute__((visibility("default")))
