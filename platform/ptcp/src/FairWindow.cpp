// FairWindow.cpp - see FairWindow.h.
#include "FairWindow.h"

#include <algorithm>
#include <cmath>

namespace ptcp {

namespace {

// CUBIC's own is 0.7. Packets that are spread over time meet fewer losses than the bursts of TCP,
// so each of them counts more.
constexpr double kReduction = 0.5;
constexpr double kCubic = 0.4;    // packets / s³
constexpr double kLinear = 0.53;  // packets a round trip
constexpr double kFree = 0.25;    // of the window, a round trip, while nobody fills the path
constexpr double kUsed = 0.75;    // of the window: what is not used need not grow
constexpr double kMaxWindow = 1e12;
constexpr double kMinPackets = 10;
constexpr int kRateSamples = 10;

double Seconds(std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) * 1e-9; }

// Packets wait longer than their times vary anyway, as they do when a machine is busy.
bool DoPacketsWait(const FairWindow::Seen& seen) {
  return seen.rtt > seen.leastRtt + seen.leastRtt / 4 + 4 * seen.rttVariation;
}
bool IsPathFree(const FairWindow::Seen& seen) {
  return seen.rtt < seen.leastRtt + seen.leastRtt / 10;
}

}  // namespace

void FairWindow::Update(const Seen& seen, std::uint64_t now) {
  UpdateRate(seen, now);
  if (seen.lost && DoPacketsWait(seen)) {
    Reduce(seen, now);
  } else if (window_ != UINT64_MAX) {
    Grow(seen, now);
  }
}

void FairWindow::UpdateRate(const Seen& seen, std::uint64_t now) {
  const std::uint64_t passed = now - rateAt_;
  if (passed < seen.rtt || passed == 0) return;
  if (rateAt_ != 0 && seen.delivered > rateDelivered_)
    rate_ = std::max(rate_, static_cast<double>(seen.delivered - rateDelivered_) / Seconds(passed));
  rateAt_ = now;
  rateDelivered_ = seen.delivered;
  if (++rateSamples_ < kRateSamples) return;
  rateSamples_ = 0;
  earlierRate_ = rate_;
  rate_ = 0;
}

std::uint64_t FairWindow::Carried(const Seen& seen) const {
  return static_cast<std::uint64_t>(std::max(rate_, earlierRate_) * Seconds(seen.leastRtt));
}

void FairWindow::Reduce(const Seen& seen, std::uint64_t now) {
  const auto packet = static_cast<double>(seen.packet);
  const double before = static_cast<double>(std::min(seen.inFlight, window_)) / packet;
  // Below the last peak: somebody has come, who gets room sooner.
  peak_ = before < peak_ ? before * (1 + kReduction) / 2 : before;
  const double carried = static_cast<double>(Carried(seen)) / packet;
  const double reduced = std::max({before * kReduction, carried, kMinPackets});
  linear_ = reduced;
  untilPeak_ = std::cbrt(std::max(peak_ - reduced, 0.0) / kCubic);
  reducedAt_ = grownAt_ = now;
  window_ = static_cast<std::uint64_t>(reduced * packet);
}

void FairWindow::Grow(const Seen& seen, std::uint64_t now) {
  const double rtt = std::max(Seconds(seen.rtt), 1e-6);
  const double rounds = Seconds(now - grownAt_) / rtt;
  const auto packet = static_cast<double>(seen.packet);
  const auto window = static_cast<double>(window_);
  grownAt_ = now;
  linear_ += kLinear * rounds;
  const double since = Seconds(now - reducedAt_) + rtt - untilPeak_;
  double grown = std::max(linear_, peak_ + kCubic * since * since * since) * packet;
  if (IsPathFree(seen) && static_cast<double>(seen.inFlight) > kUsed * window)
    grown = std::max(grown, window * (1 + kFree * std::min(rounds, 1.0)));
  window_ = static_cast<std::uint64_t>(std::clamp(grown, window, kMaxWindow));
}

}  // namespace ptcp
