// CAWDefines.h - what is exported from the keelbase library.
#pragma once

#define KEELBASE_API __attribute__((visibility("default")))
