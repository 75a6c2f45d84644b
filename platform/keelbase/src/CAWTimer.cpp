// CAWTimer.cpp - see CAWTimer.h.
#include "keelbase/CAWTimer.h"

#include <chrono>
#include <new>
#include <utility>

#include "keelbase/CAWThreadManager.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/TimerQueue.h"

namespace keelbase {

CAWTimerWrapperID::CAWTimerWrapperID() = default;
CAWTimerWrapperID::~CAWTimerWrapperID() = default;

AWResult CAWTimerWrapperID::Schedule(CAWTimerWrapperIDSink* sink, const CAWTimeValue& interval,
                                     std::uint32_t count) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  CAWThread* thread = CAWThreadManager::Instance()->GetCurrentOrNetwork();
  if (thread == nullptr) return AW_ERROR_FAILURE;
  try {
    if (timer_ == nullptr || &timer_->GetLoop() != &thread->GetLoop()) {
      auto timer = std::make_unique<internal::Timer>(thread->GetLoop());
      Cancel();  // a callback that is just running still finds the old one, which it cannot start
      timer_ = std::move(timer);
    }
    timer_->Start(interval.ToDuration(), count, [this, sink] { sink->OnTimer(this); });
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

AWResult CAWTimerWrapperID::Cancel() {
  if (timer_ != nullptr) timer_->Cancel();
  return AW_OK;
}

bool CAWTimerWrapperID::IsScheduled() const { return timer_ != nullptr && timer_->IsActive(); }

}  // namespace keelbase
