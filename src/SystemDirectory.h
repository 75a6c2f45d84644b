// SystemDirectory.h - the directory below which the processes of an install root meet.
#pragma once

#include "keelbase/CAWString.h"

namespace zarn::utils {

// GetZARNRootSystem(). When it is empty a trace line says why: the callers answer 10001, which does
// not.
keelbase::CAWString DemandSystemDirectory();

}  // namespace zarn::utils
