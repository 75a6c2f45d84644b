// TorvCalls.h - the calls of torv.h that are in progress; the manager's end waits for them.
#pragma once

#include "CallsInProgress.h"

namespace zarn::utils {

extern constinit CallsInProgress torvCalls;

}  // namespace zarn::utils
