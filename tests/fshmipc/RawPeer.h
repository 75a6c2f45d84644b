// RawPeer.h - the other end of a connection, played by a test: a socket, the memory, and whatever
// the test puts into it.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "RealShmIpc.h"
#include "ShmGreeting.h"
#include "ShmSegment.h"

namespace fshmipc {

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

// A connector that is not ours, connected to a transport of the library.
class RawPeer {
 public:
  explicit RawPeer(std::uint32_t ringSize = zarn::test::kLeastShmRing)
      : socket(zarn::test::PlainSocket::Stream()) {
    EXPECT_EQ(socket.Connect(system_.GetEndpoint()), 0);
    FileDescriptor memory;
    EXPECT_EQ(segment.Create(ringSize, memory), 0);
    EXPECT_EQ(SendGreeting(socket.Get(), zarn::test::kShmClient, ringSize, memory.Get()), 0);
    end.transport = server_.Accept();
    EXPECT_EQ(ReceiveAnswer(socket.Get()), 0);
  }

  // The control words of what it writes, and of what it reads.
  RingControl& Out() { return *segment.ConnectorRing().control; }
  RingControl& In() { return *segment.AcceptorRing().control; }
  void Wake() { socket.Send("w"); }

 private:
  zarn::test::ShmSystem system_;
  zarn::test::ShmServer server_;

 public:
  zarn::test::PlainSocket socket;
  ShmSegment segment;
  zarn::test::ShmEnd end;  // the library's
};

}  // namespace fshmipc
