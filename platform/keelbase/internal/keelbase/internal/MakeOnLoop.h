// MakeOnLoop.h - how a manager makes its connectors and acceptors.
#pragma once

#include <new>
#include <utility>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWThread.h"
#include "keelbase/CAWThreadManager.h"

namespace keelbase::internal {

// A new Object of the loop that its callbacks come on: the caller's, else the network thread's. 0;
// 10001 without memory or without such a thread, and out is null.
template <class Object, class Interface, class... Arguments>
AWResult MakeOnLoop(CAWAutoPtr<Interface>& out, Arguments&&... arguments) {
  out = nullptr;
  CAWThread* thread = CAWThreadManager::Instance()->GetCurrentOrNetwork();
  if (thread == nullptr) return AW_ERROR_FAILURE;
  try {
    out = new Object(thread->GetLoop(), std::forward<Arguments>(arguments)...);
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

}  // namespace keelbase::internal
