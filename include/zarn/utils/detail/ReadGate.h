// ReadGate.h - whether a stream's transport may go on reading.
#pragma once

#include <cstddef>

#include "keelbase/CAWTransport.h"

namespace zarn::utils::detail {

// Shut by Stop() for the rest of a connection, and for as long as more than a limit stands
// unconsumed.
class ReadGate {
 public:
  void SetLimit(std::size_t bytes) { limit_ = bytes; }  // 0: none
  void Stop() { stopped_ = true; }
  bool IsStopped() const { return stopped_; }
  void Reset() { stopped_ = shut_ = false; }  // for a new transport, which reads

  // Tells the transport (null: there is none) if it is to do something else than before.
  template <class Transport>
  void Apply(Transport* transport, std::size_t unconsumed) {
    bool shut = stopped_ || (limit_ != 0 && unconsumed > limit_);
    if (transport == nullptr || shut == shut_) return;
    shut_ = shut;
    transport->SetOption(keelbase::AW_OPT_STOP_READING, &shut);
  }

 private:
  std::size_t limit_ = 0;
  bool stopped_ = false;
  bool shut_ = false;
};

}  // namespace zarn::utils::detail
