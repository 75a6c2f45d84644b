// TellOwner.h - calls an owner that may find no memory for what it is told.
#pragma once

#include <cerrno>
#include <new>

#include "keelbase/internal/TraceError.h"

namespace keelbase::internal {

// For the first or last call about a connection. An owner that finds no memory has it only as far
// as it took it; what it did not take is closed.
template <class Upcall>
void TellOwner(Upcall&& upcall) {
  try {
    upcall();
  } catch (const std::bad_alloc&) {
    TraceError("the owner of a connection could not take what it was told", ENOMEM);
  }
}

}  // namespace keelbase::internal
