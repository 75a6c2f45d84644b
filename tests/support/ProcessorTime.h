// ProcessorTime.h - what this process has used of the processors.
#pragma once

#include <ctime>

namespace zarn::test {

inline double ProcessorSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

}  // namespace zarn::test
