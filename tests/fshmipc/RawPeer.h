// RawPeer.h - the other end of a connection, played by a test: a socket, the memory, and whatever
// the test puts into it.
#pragma once

#include <string>
#include <utility>

#include "PassDescriptors.h"
#include "RealShmIpc.h"
#include "ShmGreeting.h"
#include "ShmSegment.h"

namespace fshmipc {

using zarn::test::SendWithDescriptors;

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
