// Reconnector.cpp - see Reconnector.h.
#include "zarn/utils/detail/Reconnector.h"

#include "keelbase/CAWError.h"
#include "keelbase/CAWTimeValue.h"
#include "keelbase/CAWTrace.h"

namespace zarn::utils::detail {

namespace {

constexpr keelbase::CAWTimeValue kInterval(1, 0);
constexpr std::uint32_t kUntilCancelled = 0;

}  // namespace

// A timer keeps what it was made of when it is cancelled.
bool Reconnector::Prepare() {
  if (timer_.IsScheduled()) return true;
  const bool made = timer_.Schedule(channel_, kInterval, kUntilCancelled) == keelbase::AW_OK;
  timer_.Cancel();
  return made;
}

void Reconnector::SetLost() {
  connected_ = false;
  if (timer_.Schedule(channel_, kInterval, kUntilCancelled) != keelbase::AW_OK)
    keelbase::IAWTraceManager::Instance()->Trace(0, "Client channel: no timer, will not reconnect");
}

void Reconnector::SetConnected() {
  retryCount_ = 0;
  timer_.Cancel();
  connected_ = true;
}

bool Reconnector::NextAttempt() {
  if (connected_) {
    timer_.Cancel();
    return false;
  }
  ++retryCount_;
  return true;
}

}  // namespace zarn::utils::detail
