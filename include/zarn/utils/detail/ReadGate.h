// ReadGate.h - whether a stream's transport may go on reading, and how much at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWTransport.h"

namespace zarn::utils::detail {

// Shut by Stop() for the rest of a connection, and for as long as more than a limit stands
// unconsumed.
class ReadGate {
 public:
  // Behind the held start of a frame a read is made to end where the longest frame would, if more
  // than so many bytes are held and more than so many may be missing. The shorter read saves moving
  // the next frame's bytes; it costs another system call, or only another copy.
  static constexpr std::uint32_t kSystemCallRead = 16384;
  static constexpr std::uint32_t kMemoryRead = 64;

  explicit ReadGate(std::uint32_t shortLength = kSystemCallRead) : shortLength_(shortLength) {}

  void SetLimit(std::size_t bytes) { limit_ = bytes; }  // 0: none
  void Stop() { stopped_ = true; }
  bool IsStopped() const { return stopped_; }
  void Reset() {  // for a new transport, which reads
    stopped_ = shut_ = false;
    readSize_ = kMaxRead;
  }

  // Tells the transport (null: there is none) if it is to do something else than before.
  template <class Transport>
  void Apply(Transport* transport, std::size_t unconsumed) {
    if (transport == nullptr) return;
    bool shut = stopped_ || (limit_ != 0 && unconsumed > limit_);
    if (shut != shut_) {
      shut_ = shut;
      transport->SetOption(keelbase::AW_OPT_STOP_READING, &shut);
    }
    std::uint32_t size = ReadSizeBehind(unconsumed);
    if (size != readSize_) {
      readSize_ = size;
      transport->SetOption(keelbase::AW_OPT_READ_SIZE, &size);
    }
  }

 private:
  static constexpr std::uint32_t kMaxRead = 65535;

  std::uint32_t ReadSizeBehind(std::size_t unconsumed) const {
    const bool worthwhile = unconsumed > shortLength_ && unconsumed < kMaxRead - shortLength_;
    return worthwhile ? kMaxRead - static_cast<std::uint32_t>(unconsumed) : kMaxRead;
  }

  std::uint32_t shortLength_;
  std::size_t limit_ = 0;
  bool stopped_ = false;
  bool shut_ = false;
  std::uint32_t readSize_ = kMaxRead;
};

}  // namespace zarn::utils::detail
