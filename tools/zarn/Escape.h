// Escape.h - bytes of any kind as text.
#pragma once

#include <string>
#include <string_view>

namespace zarn::tool {

// Bytes of any kind as one line of UTF-8: control bytes, and what is not UTF-8, as \n, \t, \r or
// \xNN, and the backslash doubled, so that the bytes can be had back.
std::string Escape(std::string_view bytes);

}  // namespace zarn::tool
