// Uninterrupted.h - system calls that a signal may cut short.
#pragma once

#include <cerrno>

namespace keelbase::internal {

// What `call` returns; as long as a signal interrupts it, it is called again.
template <class Call>
auto Uninterrupted(Call&& call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace keelbase::internal
