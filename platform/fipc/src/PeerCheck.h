// PeerCheck.h - who may be at the other end of a local connection.
#pragma once

#include "keelbase/CAWTransport.h"

namespace fipc {

// 0 when the peer is of our own user or root, or when any user is allowed; else an errno value.
// Fills `credentials`.
int CheckPeer(int socket, bool allowAnyUser, keelbase::CAWPeerCredentials& credentials);

}  // namespace fipc
