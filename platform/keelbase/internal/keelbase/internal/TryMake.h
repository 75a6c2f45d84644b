// TryMake.h - makes counted objects where want of memory is one error among others.
#pragma once

#include <cerrno>
#include <new>
#include <utility>

#include "keelbase/CAWAutoPtr.h"

namespace keelbase::internal {

// 0; ENOMEM, and `out` stays as it is.
template <class Object, class Interface, class... Arguments>
int TryMake(CAWAutoPtr<Interface>& out, Arguments&&... arguments) try {
  out = new Object(std::forward<Arguments>(arguments)...);
  return 0;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

}  // namespace keelbase::internal
