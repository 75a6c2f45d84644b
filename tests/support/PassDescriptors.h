// PassDescriptors.h - passes descriptors along a Unix socket, where the system lets one.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <vector>

namespace zarn::test {

// Whether a socket of this system can refuse them.
inline bool DescriptorsCanBeRefused() {
  constexpr int kPassRights = 83;
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int value = 0;
  socklen_t size = sizeof value;
  const bool known = ::getsockopt(socket, SOL_SOCKET, kPassRights, &value, &size) == 0;
  ::close(socket);
  return known;
}

// Sends bytes and descriptors as one message.
inline bool SendWithDescriptors(int socket, const void* data, std::size_t length,
                                const std::vector<int>& descriptors) {
  iovec piece{const_cast<void*>(data), length};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(64 * sizeof(int))> control{};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  if (!descriptors.empty()) {
    const std::size_t size = descriptors.size() * sizeof(int);
    header.msg_control = control.data();
    header.msg_controllen = CMSG_SPACE(size);
    cmsghdr* part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(part), descriptors.data(), size);
  }
  return ::sendmsg(socket, &header, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

}  // namespace zarn::test
