// Everlasting.h - an object that lives as long as the process and takes no memory from anybody.
#pragma once

#include <cstddef>
#include <new>

namespace keelbase::internal {

// The one T of the process, made at the first call and never destroyed: what uses it at the very
// end still finds it. Asking for it fails only if its constructor does.
template <class T>
T& Everlasting() {
  alignas(T) static std::byte memory[sizeof(T)];
  static T& object = *new (memory) T;
  return object;
}

}  // namespace keelbase::internal
