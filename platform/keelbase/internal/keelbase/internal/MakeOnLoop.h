// MakeOnLoop.h - how a manager makes its connectors and acceptors.
#pragma once

#include <utility>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWThread.h"
#include "keelbase/CAWThreadManager.h"
#include "keelbase/internal/TryMake.h"

namespace keelbase::internal {

// A new Object of the loop that its callbacks come on: the caller's, else the network thread's. 0;
// 10001 without memory or without such a thread, and out is null.
template <class Object, class Interface, class... Arguments>
AWResult MakeOnLoop(CAWAutoPtr<Interface>& out, Arguments&&... arguments) {
  out = nullptr;
  CAWThread* thread = CAWThreadManager::Instance()->GetCurrentOrNetwork();
  if (thread == nullptr) return AW_ERROR_FAILURE;
  const int error = TryMake<Object>(out, thread->GetLoop(), std::forward<Arguments>(arguments)...);
  return error == 0 ? AW_OK : AW_ERROR_FAILURE;
}

}  // namespace keelbase::internal
