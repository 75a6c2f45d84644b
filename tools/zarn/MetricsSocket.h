// MetricsSocket.h - asks a process for its metrics.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace zarn::tool {

// Connects to the socket file of `process` and reads all that is sent until the end. Says what went
// wrong, else nothing. Returns at `deadline` at the latest, and early when the user interrupts.
std::string AskForMetrics(pid_t process, std::chrono::steady_clock::time_point deadline,
                          std::string& answer);

}  // namespace zarn::tool
