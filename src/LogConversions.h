// LogConversions.h - the conversions of a printf pattern, as the C library reads them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zarn::utils {

// One conversion, from its '%' on.
struct Conversion {
  const char* end = nullptr;  // behind it; null when the text ends within it
  char kind = '\0';           // 'd', 's', '%', ...
  unsigned position = 0;      // of "%1$d"; 0: takes the next argument
  std::size_t stars = 0;      // how many of width and precision are arguments
  unsigned starPositions[2] = {0, 0};
};

Conversion ParseConversion(const char* percent);

// What must be known of a pattern before arguments are put into it.
struct PatternCheck {
  std::size_t size = 0;     // up to a conversion that the end cuts in two
  bool writes = false;      // has a %n
  bool positional = false;  // has a "%1$d"
};

PatternCheck CheckPattern(const char* pattern);

// Whether each argument up to the last that a positional pattern names is named. If not, the types
// of those between are unknown, and so is where the others are.
bool NamesAllArguments(const char* pattern);

// The first `size` bytes of a pattern with a %p in the place of each %n: it takes the same
// arguments. `begins` and `ends` tell where those stand in the result.
struct HarmlessPattern {
  HarmlessPattern(const char* pattern, std::size_t size);

  std::string text;
  std::vector<std::size_t> begins;
  std::vector<std::size_t> ends;
};

}  // namespace zarn::utils
