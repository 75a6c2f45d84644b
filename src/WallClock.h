// WallClock.h - the time of day that log lines bear.
#pragma once

#include <sys/time.h>

namespace zarn::utils {

timeval GetWallTime();

// A test's own time of day; null: the system's again.
void TEST_SetWallClock(timeval (*clock)());

}  // namespace zarn::utils
