// Counters.h - how many allocations and system calls this process has made.
#pragma once

#include <cstdint>

namespace bench {

struct Counts {
  std::uint64_t allocations = 0;
  std::uint64_t systemCalls = 0;
};

// Starts counting, for good. Counting costs other libraries a locked instruction for each
// allocation, so the runs that are timed do without.
void StartCounting();

// All threads together. Allocations: calls of malloc and its kin, operator new included. System
// calls: those that read, write, wait for descriptors or yield; not the futex calls inside the C
// library.
Counts GetCounts();

}  // namespace bench
