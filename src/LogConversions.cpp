// LogConversions.cpp - see LogConversions.h.
#include "LogConversions.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>

namespace zarn::utils {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

unsigned TakeNumber(const char*& at) {
  unsigned number = 0;
  for (; IsDigit(*at); ++at) number = std::min(number * 10 + unsigned(*at - '0'), 100000000U);
  return number;
}

// "12$"; 0, and nothing taken, when there is none.
unsigned TakePosition(const char*& at) {
  const char* ahead = at;
  const unsigned number = TakeNumber(ahead);
  if (*ahead == '\0') at = ahead;  // the text ends within what may be a position
  if (number == 0 || *ahead != '$') return 0;
  at = ahead + 1;
  return number;
}

// A width or a precision.
void TakeSize(const char*& at, Conversion& conversion) {
  if (*at != '*') {
    TakeNumber(at);
    return;
  }
  ++at;
  conversion.starPositions[conversion.stars++] = TakePosition(at);
}

// Whether "w8" and "wf16" are length modifiers. To a C library without them, such as glibc before
// 2.38, 'w' is an unknown conversion, which takes no argument.
bool HasWidthsInBits() {
  static const bool has = [] {
    char pattern[] = "%w8d";  // no literal: the compiler may not know it
    char text[sizeof pattern];
    std::snprintf(text, sizeof text, pattern, 5);
    return std::strcmp(text, "5") == 0;
  }();
  return has;
}

// One at most: "hl" is an unknown conversion 'l' to the C library.
void TakeLengthModifier(const char*& at) {
  if (*at == '\0' || std::strchr("hlLqzZtjw", *at) == nullptr) return;
  if (*at == 'w' && !HasWidthsInBits()) return;
  const char modifier = *at++;
  if ((modifier == 'h' || modifier == 'l') && *at == modifier) ++at;
  if (modifier != 'w') return;
  if (*at == 'f') ++at;
  TakeNumber(at);
}

std::string ToReference(unsigned position) {
  return position == 0 ? std::string() : std::to_string(position) + "$";
}

std::string MakePointerConversion(const Conversion& conversion) {
  std::string text = "%" + ToReference(conversion.position);
  for (std::size_t i = 0; i < conversion.stars; ++i)
    text += (i == 0 ? "*" : ".*") + ToReference(conversion.starPositions[i]);
  return text + "p";
}

// Calls visit(percent, conversion) for each. The '%' of one that the end cuts in two, else null.
template <class Visit>
const char* ForEachConversion(const char* pattern, Visit visit) {
  const char* at = std::strchr(pattern, '%');
  while (at != nullptr) {
    const Conversion conversion = ParseConversion(at);
    if (conversion.end == nullptr) break;
    visit(at, conversion);
    at = std::strchr(conversion.end, '%');
  }
  return at;
}

}  // namespace

Conversion ParseConversion(const char* percent) {
  Conversion conversion;
  const char* at = percent + 1;
  conversion.position = TakePosition(at);
  while (*at != '\0' && std::strchr("-+ #0'I", *at) != nullptr) ++at;
  TakeSize(at, conversion);
  if (*at == '.') TakeSize(++at, conversion);
  TakeLengthModifier(at);
  conversion.kind = *at;
  if (*at != '\0') conversion.end = at + 1;
  return conversion;
}

PatternCheck CheckPattern(const char* pattern) {
  PatternCheck check;
  const auto look = [&check](const char* /*percent*/, const Conversion& conversion) {
    check.writes = check.writes || conversion.kind == 'n';
    check.positional = check.positional || conversion.position != 0;
  };
  const char* cut = ForEachConversion(pattern, look);
  check.size = cut != nullptr ? static_cast<std::size_t>(cut - pattern) : std::strlen(pattern);
  return check;
}

bool NamesAllArguments(const char* pattern) {
  std::set<unsigned> named;
  ForEachConversion(pattern, [&named](const char* /*percent*/, const Conversion& conversion) {
    named.insert(conversion.position);
    named.insert(std::begin(conversion.starPositions), std::end(conversion.starPositions));
  });
  named.erase(0);
  return named.empty() || *named.rbegin() == named.size();
}

HarmlessPattern::HarmlessPattern(const char* pattern, std::size_t size) {
  const std::string kept(pattern, size);
  const char* copied = kept.c_str();
  ForEachConversion(kept.c_str(), [&](const char* percent, const Conversion& conversion) {
    if (conversion.kind != 'n') return;
    text.append(copied, percent);
    begins.push_back(text.size());
    text += MakePointerConversion(conversion);
    ends.push_back(text.size());
    copied = conversion.end;
  });
  text.append(copied);
}

}  // namespace zarn::utils
