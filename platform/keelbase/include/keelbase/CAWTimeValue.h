// CAWTimeValue.h - a span of time in seconds and microseconds.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <ratio>
#include <type_traits>

namespace keelbase {

// A value, kept as a count of microseconds (about 292 thousand years each way). What does not fit
// stops at the end of the range instead of wrapping.
class CAWTimeValue {
 public:
  constexpr CAWTimeValue() = default;

  // The sum of both; usec may be negative or more than a second.
  explicit constexpr CAWTimeValue(std::int64_t sec, std::int64_t usec = 0)
      : usec_(Clamp(Wide(sec) * kSecond + usec)) {}

  // What is finer than a microsecond is cut off towards zero. What is no number gives 0.
  template <class Rep, class Period>
  constexpr CAWTimeValue(std::chrono::duration<Rep, Period> duration)
      : usec_(FromDuration(duration)) {}

  // GetSec() whole seconds, rounded down, and GetUsec() in 0 to 999999 to be added to them: minus
  // half a second is -1 and 500000.
  constexpr std::int64_t GetSec() const { return usec_ / kSecond - (usec_ % kSecond < 0 ? 1 : 0); }
  constexpr std::int64_t GetUsec() const {
    return usec_ % kSecond + (usec_ % kSecond < 0 ? kSecond : 0);
  }
  constexpr std::chrono::microseconds ToDuration() const {
    return std::chrono::microseconds(usec_);
  }

  constexpr CAWTimeValue& operator+=(CAWTimeValue other) {
    usec_ = Clamp(Wide(usec_) + other.usec_);
    return *this;
  }
  constexpr CAWTimeValue& operator-=(CAWTimeValue other) {
    usec_ = Clamp(Wide(usec_) - other.usec_);
    return *this;
  }
  friend constexpr CAWTimeValue operator+(CAWTimeValue a, CAWTimeValue b) { return a += b; }
  friend constexpr CAWTimeValue operator-(CAWTimeValue a, CAWTimeValue b) { return a -= b; }

  friend constexpr bool operator==(CAWTimeValue a, CAWTimeValue b) { return a.usec_ == b.usec_; }
  friend constexpr bool operator!=(CAWTimeValue a, CAWTimeValue b) { return a.usec_ != b.usec_; }
  friend constexpr bool operator<(CAWTimeValue a, CAWTimeValue b) { return a.usec_ < b.usec_; }
  friend constexpr bool operator<=(CAWTimeValue a, CAWTimeValue b) { return a.usec_ <= b.usec_; }
  friend constexpr bool operator>(CAWTimeValue a, CAWTimeValue b) { return a.usec_ > b.usec_; }
  friend constexpr bool operator>=(CAWTimeValue a, CAWTimeValue b) { return a.usec_ >= b.usec_; }

 private:
  static constexpr std::int64_t kSecond = 1000000;
  static constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  static constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

  // Holds what two numbers of 64 bits make, exactly.
  __extension__ using Wide = __int128;

  static constexpr std::int64_t Clamp(Wide usec) {
    if (usec > kMax) return kMax;
    if (usec < kMin) return kMin;
    return static_cast<std::int64_t>(usec);
  }
  template <class Rep, class Period>
  static constexpr std::int64_t FromDuration(std::chrono::duration<Rep, Period> duration) {
    if constexpr (std::is_integral_v<Rep>) {
      using Factor = std::ratio_divide<Period, std::micro>;
      return Clamp(Wide(duration.count()) * Factor::num / Factor::den);
    } else {
      using Real = std::common_type_t<Rep, std::int64_t>;
      using Microseconds = std::chrono::duration<Real, std::micro>;
      const Real usec = std::chrono::duration_cast<Microseconds>(duration).count();
      if (usec >= static_cast<Real>(kMax)) return kMax;
      if (usec > static_cast<Real>(kMin)) return static_cast<std::int64_t>(usec);
      return usec <= static_cast<Real>(kMin) ? kMin : 0;
    }
  }

  std::int64_t usec_ = 0;
};

}  // namespace keelbase
