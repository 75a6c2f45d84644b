// PeerCheck.h - who may be at the other end of a local connection.
#pragma once

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWTransport.h"

namespace keelbase::internal {

// 0 when the peer is of our own user or root, or when any user is allowed; else an errno value.
// Fills `credentials`.
KEELBASE_API int CheckPeer(int socket, bool allowAnyUser, CAWPeerCredentials& credentials);

}  // namespace keelbase::internal
