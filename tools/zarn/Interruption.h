// Interruption.h - the signals that end the program, and how subcommands see them without an event
// loop, or while they keep it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <vector>

namespace zarn::tool {

// SIGINT and SIGTERM, also where a shell script that starts the program in the background has them
// ignored; SIGHUP unless it was ignored at the start, as nohup wants it.
std::vector<int> GetEndingSignals();

// One that has come.
struct EndingSignal {
  EndingSignal() = default;
  explicit EndingSignal(const siginfo_t& info);  // just now

  int number = 0;
  pid_t sender = 0;  // 0: the system, as at Ctrl-C
  std::chrono::steady_clock::time_point at;
};

// The same signal from the same process within a second. timeout(1) sends its own to its child and
// to the group that both are in, and nobody has become impatient.
bool IsSentTwice(const EndingSignal& first, const EndingSignal& again);

// The first signal is remembered, and ends a read that waits; a second one ends the process, unless
// it is the first sent twice. For a program of one thread.
void CatchInterruptions();
void NoteInterruption();  // the same, of one who fetches the signals; any thread
bool IsInterrupted();

}  // namespace zarn::tool
