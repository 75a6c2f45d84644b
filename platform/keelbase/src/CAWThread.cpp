// CAWThread.cpp - see CAWThread.h.
#include "keelbase/CAWThread.h"

#include <new>

#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FunctionEvent.h"
#include "keelbase/internal/TraceError.h"

namespace keelbase {

CAWThread::CAWThread(const char* name)
    : loop_(std::make_unique<internal::EventLoop>(name)), queue_(*loop_) {}

CAWThread::~CAWThread() = default;

AWResult CAWThread::Run() {
  const AWResult result = IsCurrent() ? loop_->Run() : AW_ERROR_FAILURE;
  if (result != AW_OK)
    internal::TraceLine("CAWThread::Run: only the adopted thread may call it, and once at a time");
  return result;
}

void CAWThread::Stop() {
  if (adopted_) loop_->Stop();
}

bool CAWThread::IsCurrent() const { return loop_->IsCurrent(); }

bool CAWThread::IsServing() const { return !adopted_ || loop_->IsRunning(); }

void CAWThread::SetSpin(std::uint32_t microseconds) { loop_->SetSpin(microseconds); }

AWResult CAWThread::Post(std::function<void()> function) try {
  return queue_.Post(new internal::FunctionEvent(std::move(function)));
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

void CAWThread::RunThere(const std::function<void()>& function) { loop_->RunThere(function); }

bool CAWThread::TEST_RunReady() { return loop_->RunReady(); }

}  // namespace keelbase
