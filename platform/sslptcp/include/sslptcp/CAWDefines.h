// CAWDefines.h - what is exported from the sslptcp library.
#pragma once

#define SSLPTCP_API __attribute__((visibility("default")))
