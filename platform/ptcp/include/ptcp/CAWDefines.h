// CAWDefines.h - what is exported from the ptcp library.
#pragma once

#define PTCP_API __attribute__((visibility("default")))
