// Interruption.h - the signals that end the program, and how subcommands see them without an event
// loop, or while they keep it.
#pragma once

#include <vector>

namespace zarn::tool {

// SIGINT and SIGTERM, also where a shell script that starts the program in the background has them
// ignored; SIGHUP unless it was ignored at the start, as nohup wants it.
std::vector<int> GetEndingSignals();

// The first signal is remembered, and ends a read that waits; a second one ends the process.
void CatchInterruptions();
void NoteInterruption();  // the same, of one who fetches the signals; any thread
bool IsInterrupted();

}  // namespace zarn::tool
