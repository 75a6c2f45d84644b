// RawPeer.h - the other end of a connection, played by a test: a listener that speaks when the test
// says so; a connector with the memory, and whatever the test puts into it.
#pragma once

#include <string>
#include <utility>

#include "PassDescriptors.h"
#include "RealShmIpc.h"
#include "ShmGreeting.h"
#include "ShmSegment.h"

namespace fshmipc {

using zarn::test::SendWithDescriptors;

// A listener that is not ours.
class ForeignServer {
 public:
  ForeignServer() : listening_(zarn::test::PlainSocket::Stream()) {
    EXPECT_EQ(listening_.Bind(system_.GetEndpoint()), 0);
    EXPECT_EQ(listening_.Listen(), 0);
  }
  zarn::test::PlainSocket Accept() {
    zarn::test::PlainSocket peer(-1);
    EXPECT_TRUE(zarn::test::Await([&] {
      peer = listening_.Accept();
      return peer.Get() >= 0;
    }));
    return peer;
  }
  // The connector has greeted, or failed to.
  zarn::test::PlainSocket Welcome() {
    zarn::test::PlainSocket peer = Accept();
    EXPECT_EQ(SendWelcome(peer.Get()), 0);
    zarn::test::Turn();
    return peer;
  }

 private:
  zarn::test::ShmSystem system_;
  zarn::test::PlainSocket listening_;
};

// A connector that is not ours, connected to a transport of the library.
class RawPeer {
 public:
  explicit RawPeer(std::uint32_t ringSize = zarn::test::kMinShmRing)
      : socket(zarn::test::PlainSocket::Stream()) {
    EXPECT_EQ(socket.Connect(system_.GetEndpoint()), 0);
    zarn::test::Turn();
    EXPECT_EQ(ReceiveWelcome(socket.Get()), 0);
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
