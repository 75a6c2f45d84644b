// CAWShmIPCAddr.h - the address of a shared-memory endpoint: a pair of 16-bit numbers.
#pragma once

#include <cstdint>

namespace fshmipc {

// A plain value; (0, 0) by default.
class CAWShmIPCAddr {
 public:
  CAWShmIPCAddr() = default;
  CAWShmIPCAddr(std::uint16_t first, std::uint16_t second) : first_(first), second_(second) {}

  std::uint16_t GetFirst() const { return first_; }
  std::uint16_t GetSecond() const { return second_; }

  friend bool operator==(const CAWShmIPCAddr& a, const CAWShmIPCAddr& b) {
    return a.first_ == b.first_ && a.second_ == b.second_;
  }
  friend bool operator!=(const CAWShmIPCAddr& a, const CAWShmIPCAddr& b) { return !(a == b); }

 private:
  std::uint16_t first_ = 0;
  std::uint16_t second_ = 0;
};

}  // namespace fshmipc
