// Latency.cpp - see Latency.h.
#include "Latency.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace zarn::tool {

namespace {
constexpr double kNanosPerMicro = 1000;
}  // namespace

// Values below 2^kBits have a bucket each. Above, the first bit of the value says which row of
// 2^kBits buckets, and the kBits after it which of the row.
std::size_t Latency::BucketOf(std::uint64_t nanoseconds) {
  const std::uint64_t value = std::min<std::uint64_t>(nanoseconds, std::uint64_t{1} << 62);
  const auto width = static_cast<unsigned>(std::bit_width(value));
  if (width <= kBits) return value;
  const unsigned shift = width - kBits - 1;
  return (std::size_t{shift + 1} << kBits) + ((value >> shift) - (1U << kBits));
}

double Latency::MiddleOf(std::size_t bucket) {
  const std::size_t row = bucket >> kBits;
  if (row == 0) return static_cast<double>(bucket);
  const std::uint64_t first = ((1U << kBits) + (bucket & ((1U << kBits) - 1))) << (row - 1);
  const std::uint64_t width = std::uint64_t{1} << (row - 1);
  return static_cast<double>(first) + static_cast<double>(width - 1) / 2;
}

void Latency::Add(std::chrono::nanoseconds duration) {
  const auto value = static_cast<std::uint64_t>(std::max<std::int64_t>(duration.count(), 0));
  ++buckets_[BucketOf(value)];
  min_ = count_ == 0 ? value : std::min(min_, value);
  max_ = std::max(max_, value);
  sum_ += value;
  ++count_;
}

double Latency::GetMin() const { return static_cast<double>(min_) / kNanosPerMicro; }
double Latency::GetMax() const { return static_cast<double>(max_) / kNanosPerMicro; }

double Latency::GetMean() const {
  return count_ == 0 ? 0 : static_cast<double>(sum_) / static_cast<double>(count_) / kNanosPerMicro;
}

double Latency::GetPercentile(double percent) const {
  if (count_ == 0) return 0;
  const auto wanted =
      static_cast<std::uint64_t>(std::ceil(static_cast<double>(count_) * percent / 100));
  std::uint64_t seen = 0;
  std::size_t bucket = 0;
  while (bucket < kBuckets && (seen += buckets_[bucket]) < std::max<std::uint64_t>(wanted, 1))
    ++bucket;
  return std::clamp(MiddleOf(bucket), static_cast<double>(min_), static_cast<double>(max_)) /
         kNanosPerMicro;
}

}  // namespace zarn::tool
