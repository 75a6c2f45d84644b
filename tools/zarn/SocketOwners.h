// SocketOwners.h - which process listens at a Unix socket's file.
#pragma once

#include <vector>

#include "EndpointFiles.h"

namespace zarn::tool {

// Fills in the process of every file that is listening, as far as we may see it: the kernel is
// asked which socket is bound to the file, and /proc which process holds that socket open.
void FindOwners(std::vector<EndpointFile>& files);

}  // namespace zarn::tool
