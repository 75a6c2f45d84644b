// Escape.cpp - see Escape.h.
#include "Escape.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>

namespace zarn::tool {

namespace {

// One of the characters that Unicode calls Bidi_Control.
bool ChangesDirection(unsigned code) {
  return code == 0x061c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e) ||
         (code >= 0x2066 && code <= 0x2069);
}

// The length of the printable UTF-8 character at the start of `bytes`; 0 when there is none.
std::size_t PrintableLength(std::string_view bytes) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned lead = at(0);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
  const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || bytes.size() < length) return 0;
  unsigned code = lead & (0xffU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xc0U) != 0x80) return 0;
    code = code << 6 | (at(i) & 0x3fU);
  }
  constexpr unsigned kMinCodes[] = {0, 0, 0xa0, 0x800, 0x10000};  // 0x80 to 0x9f are control codes
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  const bool lineEnd = code == 0x2028 || code == 0x2029;
  if (code < kMinCodes[length] || code > 0x10ffff || surrogate || lineEnd) return 0;
  return ChangesDirection(code) ? 0 : length;
}

bool IsPlain(char byte) { return byte >= 0x20 && byte < 0x7f && byte != '\\'; }

std::string EscapeByte(char byte) {
  switch (byte) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
  }
}

}  // namespace

bool IsPrintable(std::string_view line) {
  for (std::size_t length = 1; !line.empty() && length != 0; line.remove_prefix(length))
    length = line[0] == '\t' ? 1 : PrintableLength(line);
  return line.empty();
}

std::string Escape(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (;;) {
    // Most texts are plain but for a few bytes.
    const auto* const other = std::find_if_not(bytes.begin(), bytes.end(), IsPlain);
    text.append(bytes.begin(), other);
    bytes.remove_prefix(static_cast<std::size_t>(other - bytes.begin()));
    if (bytes.empty()) return text;
    std::size_t length = PrintableLength(bytes);
    if (bytes[0] == '\\') {
      text.append("\\\\");
    } else if (length != 0) {
      text.append(bytes.substr(0, length));
    } else {
      text.append(EscapeByte(bytes[0]));
      length = 1;
    }
    bytes.remove_prefix(length);
  }
}

}  // namespace zarn::tool
