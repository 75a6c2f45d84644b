// Interruption.h - SIGINT, SIGTERM and SIGHUP for subcommands without an event loop.
#pragma once

namespace zarn::tool {

// The first signal is remembered, and ends a read that waits; a second one ends the process.
void CatchInterruptions();
bool IsInterrupted();

}  // namespace zarn::tool
