// PassedDescriptors.cpp - see PassedDescriptors.h.
#include "keelbase/internal/PassedDescriptors.h"

#include <sys/socket.h>

namespace keelbase::internal {

namespace {
constexpr int kPassRights = 83;  // SO_PASSRIGHTS: the headers may be older than the kernel
}  // namespace

void RefuseDescriptors(int socket) {
  const int pass = 0;
  ::setsockopt(socket, SOL_SOCKET, kPassRights, &pass, sizeof pass);
}

}  // namespace keelbase::internal
