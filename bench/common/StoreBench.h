// StoreBench.h - what the programs that measure stores share.
#pragma once

#include <cstdint>
#include <string>

#include "Bench.h"

namespace bench {

inline constexpr std::uint64_t kEntries = 100'000;

struct StoreOptions {
  std::string operation;
  double seconds = 1.0;  // measured; a fifth of it comes before, unmeasured
};

inline std::string KeyOf(std::uint64_t number) {
  return "zarn://node/settings/" + std::to_string(number);
}
inline std::string ValueOf(std::uint64_t number) {
  return "a value of some sixty bytes, as settings have, and its number " + std::to_string(number);
}
// Far apart for neighbours, the same in every run.
inline std::uint64_t Scatter(std::uint64_t number) { return number * 61'981 % kEntries; }

// Nanoseconds for one call of operation(0), operation(1) and so on.
template <class Operation>
double MeasureEach(const StoreOptions& options, Operation operation) {
  const double start = Now();
  const double begin = start + options.seconds / 5;
  const double end = begin + options.seconds;
  std::uint64_t number = 0;
  std::uint64_t first = 0;
  double began = 0;
  for (;;) {
    const double now = Now();
    if (began == 0 && now >= begin) {
      began = now;
      first = number;
    }
    if (began != 0 && now >= end && number != first)
      return (now - began) * 1e9 / static_cast<double>(number - first);
    operation(number++);
  }
}

struct StoreContestant {
  const char* name;
  double (*measure)(const StoreOptions& options, const std::string& path);  // nanoseconds
};

// usage: PROGRAM CONTESTANT OPERATION [--seconds S]. Prints one JSON object.
int MainOfStore(int argc, char** argv, StoreContestant ours, StoreContestant other);

}  // namespace bench
