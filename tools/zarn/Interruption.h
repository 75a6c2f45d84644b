// Interruption.h - the signals that end the program, and how subcommands without an event loop see
// them.
#pragma once

#include <vector>

namespace zarn::tool {

// SIGINT and SIGTERM, also where a shell script that starts the program in the background has them
// ignored; SIGHUP unless it was ignored at the start, as nohup wants it.
std::vector<int> GetEndingSignals();

// The first signal is remembered, and ends a read that waits; a second one ends the process.
void CatchInterruptions();
bool IsInterrupted();

}  // namespace zarn::tool
