// Reconnector.h - when a client channel connects again.
#pragma once

#include <cstdint>

#include "keelbase/CAWTimer.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils::detail {

// Calls the channel's OnTimer every second from a loss on, without limit, until it is connected.
class ZARNUTILS_API Reconnector {
 public:
  explicit Reconnector(keelbase::CAWTimerWrapperIDSink* channel) : channel_(channel) {}

  // Takes the memory that ticks need, so that a loss on this thread needs none. False without.
  __attribute__((visibility("hidden"))) bool Prepare();

  void SetConnected();  // no more ticks
  void SetLost();       // the first tick comes in a second, whatever was scheduled
  void SetDown() { connected_ = false; }  // leaves the ticks as they are

  // For OnTimer: true when an attempt is to be made, which is counted.
  bool NextAttempt();

  bool IsConnected() const { return connected_; }
  std::uint32_t GetRetryCount() const { return retryCount_; }

 private:
  keelbase::CAWTimerWrapperIDSink* channel_;
  std::uint32_t retryCount_ = 0;
  bool connected_ = false;
  keelbase::CAWTimerWrapperID timer_;
};

}  // namespace zarn::utils::detail
