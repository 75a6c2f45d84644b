// SystemDirectory.h - the directory below which the processes of an install root meet.
#pragma once

#include "keelbase/CAWString.h"

namespace zarn::utils {

// GetZARNRootSystem(). When that is empty a trace line says why, since the callers' 10001 does not.
keelbase::CAWString DemandSystemDirectory();

}  // namespace zarn::utils
