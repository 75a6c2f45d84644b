// TaskThread.h - the platform's thread for work, started on first use.
#pragma once

#include "keelbase/CAWThreadManager.h"

namespace zarn::test {

inline keelbase::CAWThread* TaskThread() {
  return keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_TASK);
}

}  // namespace zarn::test
