// TellOwner.h - calls an owner who may find no memory for what he is told.
#pragma once

#include <cerrno>
#include <new>

#include "keelbase/internal/TraceError.h"

namespace keelbase::internal {

// For the first or last call about a connection. Without memory it is the owner's only as far as he
// took it: what he did not take is closed.
template <class Upcall>
void TellOwner(Upcall&& upcall) {
  try {
    upcall();
  } catch (const std::bad_alloc&) {
    TraceError("the owner of a connection could not take what he was told", ENOMEM);
  }
}

}  // namespace keelbase::internal
