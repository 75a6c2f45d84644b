// FairWindow.h - a bound for what is in flight that leaves others their part of a full path.
#pragma once

#include <cstdint>

namespace ptcp {

// Loss alone says nothing: bad links lose packets that have room. Loss while packets also have to
// wait says that a queue on the path has run over, and whoever else fills it, as TCP does, then
// gives way. The congestion control below us does not, so this does: much as CUBIC (RFC 9438), but
// never below what the path has just been seen to carry without a queue. Without such losses there
// is no bound. Times are in nanoseconds.
class FairWindow {
 public:
  struct Seen {
    std::uint64_t inFlight;   // bytes
    std::uint64_t delivered;  // bytes since the beginning; lost ones may be among them
    std::uint64_t packet;     // size of a full one
    std::uint64_t leastRtt;
    std::uint64_t rtt;  // smoothed
    std::uint64_t rttVariation;
    bool lost;  // for the first time since an earlier loss was made good
  };

  void Update(const Seen& seen, std::uint64_t now);

  // How much may be sent now.
  std::uint64_t Room(std::uint64_t inFlight) const {
    return window_ > inFlight ? window_ - inFlight : 0;
  }

 private:
  void UpdateRate(const Seen& seen, std::uint64_t now);
  void Reduce(const Seen& seen, std::uint64_t now);
  void Grow(const Seen& seen, std::uint64_t now);
  std::uint64_t Carried(const Seen& seen) const;

  std::uint64_t window_ = UINT64_MAX;

  // Of the growth since the last reduction, in packets.
  std::uint64_t reducedAt_ = 0;
  std::uint64_t grownAt_ = 0;
  double peak_ = 0;       // where it was reduced
  double untilPeak_ = 0;  // seconds
  double linear_ = 0;     // what a sender without the cubic would have reached

  // Bytes a second, the most of one round trip in the last ten to twenty.
  std::uint64_t rateAt_ = 0;
  std::uint64_t rateDelivered_ = 0;
  int rateSamples_ = 0;
  double rate_ = 0;
  double earlierRate_ = 0;
};

}  // namespace ptcp
