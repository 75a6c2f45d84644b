// ShmFailingCalls_test.cpp - connections of shared memory whose socket takes nothing.
#include <gtest/gtest.h>

#include <cerrno>

#include "FailingCalls.h"
#include "RawPeer.h"

namespace fshmipc {
namespace {

using namespace zarn::test;

TEST(ShmFailingCalls, AConnectThatCannotTellOfItsMemoryIsToldWhy) {
  const ShmSystem system;
  ShmServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  const FailingCalls failing("sendmsg", ENOBUFS, FailingCalls::kAll, 1);  // after the welcome
  EXPECT_EQ(connector->AsyncConnect(&sink, kShmServer, 0, nullptr), AW_OK);
  ASSERT_TRUE(Await([&] { return sink.count != 0; }));
  ASSERT_EQ(sink.got.size(), 1U);
  EXPECT_EQ(sink.got[0].reason, ENOBUFS);
  Turn();
  EXPECT_EQ(server.sink.count, 0);
}

TEST(ShmFailingCalls, AClientThatCannotBeWelcomedAtOnceIsDroppedAndTheNextIsServed) {
  const ShmSystem system;
  ShmServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  {
    const FailingCalls failing("sendmsg", EAGAIN);
    EXPECT_EQ(connector->AsyncConnect(&sink, kShmServer, 0, nullptr), AW_OK);
    ASSERT_TRUE(Await([&] { return sink.count == 1; }));
    EXPECT_EQ(failing.GetFailed(), 1);
  }
  EXPECT_EQ(sink.got.at(0).reason, ECONNRESET);
  EXPECT_EQ(connector->AsyncConnect(&sink, kShmServer, 0, nullptr), AW_OK);
  ASSERT_TRUE(Await([&] { return sink.count == 2; }));
  EXPECT_EQ(sink.got.at(1).reason, 0);
}

TEST(ShmFailingCalls, APeerThatCannotBeWokenIsGivenUpWhileItMayReadWhatWasSent) {
  RawPeer peer;
  peer.end.Open();
  RingReader reader(peer.segment.AcceptorRing());
  EXPECT_TRUE(reader.Sleep());
  {
    const FailingCalls failing("send", ENOMEM);
    EXPECT_EQ(peer.end.Send("last"), AW_OK);
    RunReady();
    EXPECT_EQ(failing.GetFailed(), 1);
  }
  EXPECT_TRUE(peer.end.sink.ended);
  EXPECT_EQ(peer.end.sink.reason, ENOMEM);
  EXPECT_EQ(reader.Available(), 4U);
}

}  // namespace
}  // namespace fshmipc
