// TorvLock.h - the lock of messaging, held for one call.
#pragma once

#include "LockForCall.h"
#include "keelbase/CAWMutex.h"

namespace zarn::utils {

class CTORVManager;

// Guards the list of receivers and every receiver's numbers. Not a member of the manager: a call
// takes it before it knows that the manager is still there.
extern constinit keelbase::CAWMutexThread torvMutex;

struct TorvLock : LockForCall<keelbase::CAWMutexThread> {
  TorvLock() : LockForCall(torvMutex) {}
};

// To be asked with the lock held: when true, the manager is not destroyed before it is let go.
bool IsTorvManager(const CTORVManager* manager);

}  // namespace zarn::utils
