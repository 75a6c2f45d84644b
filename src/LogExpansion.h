// LogExpansion.h - writes a log line: puts the arguments into its text.
#pragma once

#include <cstdarg>
#include <cstdio>

#include "LogText.h"

namespace zarn::utils {

// Writes the line to `stream`, behind what that holds in its buffer, by one call of the system. %m
// prints the `error` given.
void WriteLine(const LogFields& fields, std::FILE* stream, int error, std::va_list args);

}  // namespace zarn::utils
