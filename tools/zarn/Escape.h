// Escape.h - bytes of any kind as text.
#pragma once

#include <string>
#include <string_view>

namespace zarn::tool {

// Bytes of any kind as one line of UTF-8: control bytes, line ends, what is not UTF-8, and
// characters that change the direction of text, as \n, \t, \r or \xNN, and the backslash doubled,
// so that the bytes can be had back.
std::string Escape(std::string_view bytes);

// Whether a terminal may get a line as it is: UTF-8 without what Escape would change, but for tabs
// and backslashes.
bool IsPrintable(std::string_view line);

}  // namespace zarn::tool
