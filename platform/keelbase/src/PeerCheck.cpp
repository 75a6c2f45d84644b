// PeerCheck.cpp - see PeerCheck.h.
#include "keelbase/internal/PeerCheck.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace keelbase::internal {

int CheckPeer(int socket, bool allowAnyUser, CAWPeerCredentials& credentials) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return errno;
  credentials = {peer.pid, peer.uid, peer.gid};
  const bool allowed = allowAnyUser || peer.uid == ::geteuid() || peer.uid == 0;
  return allowed ? 0 : EACCES;
}

}  // namespace keelbase::internal
