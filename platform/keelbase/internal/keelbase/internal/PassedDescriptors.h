// PassedDescriptors.h - keeps away descriptors that a peer passes along a Unix socket.
#pragma once

#include "keelbase/CAWDefines.h"

namespace keelbase::internal {

// Passed descriptors that nobody takes are closed by whoever reads or closes the socket, and the
// close of some waits: of a TCP socket for its linger, as long as its maker likes. From here on
// passing one fails on the peer's side. What a listening socket refuses, those it accepts refuse
// too. Without effect before Linux 6.16.
KEELBASE_API void RefuseDescriptors(int socket);

}  // namespace keelbase::internal
