// Latency.h - the distribution of many durations in bounded memory.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace zarn::tool {

// Counts durations in buckets whose width grows with the duration: 256 to each doubling, so a
// percentile is at most 0.4 % off. Below 256 ns, the least, the greatest and the mean are exact.
class Latency {
 public:
  void Add(std::chrono::nanoseconds duration);

  std::uint64_t GetCount() const { return count_; }
  double GetMin() const;  // these are microseconds; 0 when there are none
  double GetMax() const;
  double GetMean() const;
  double GetPercentile(double percent) const;  // the least that `percent` % of all do not exceed

 private:
  static constexpr unsigned kBits = 8;  // of a duration that are told apart, after its first one
  static constexpr std::size_t kBuckets = (64 - kBits) << kBits;

  static std::size_t BucketOf(std::uint64_t nanoseconds);
  static double MiddleOf(std::size_t bucket);

  std::array<std::uint64_t, kBuckets> buckets_{};
  std::uint64_t count_ = 0;
  std::uint64_t sum_ = 0;
  std::uint64_t min_ = 0;
  std::uint64_t max_ = 0;
};

}  // namespace zarn::tool
