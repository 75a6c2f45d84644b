// CAWDefines.h - what is exported from the fshmipc library.
#pragma once

#define FSHMIPC_API __attribute__((visibility("default")))
