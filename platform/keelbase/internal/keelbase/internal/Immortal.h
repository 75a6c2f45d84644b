// Immortal.h - an object that is there from its first use until the process is gone.
#pragma once

#include <cstddef>
#include <new>

namespace keelbase::internal {

// The one T of this kind. It asks for no memory, so that no first use can fail, and is never
// destroyed, so that threads and the destructors of static objects may use it to the very end.
template <class T>
T& Immortal() {
  alignas(T) static std::byte place[sizeof(T)];
  static T& object = *new (place) T;
  return object;
}

}  // namespace keelbase::internal
