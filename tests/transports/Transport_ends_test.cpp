// Transport_ends_test.cpp - the end of a connection by its peer, and letting go of it, which all
// transports do alike.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "ChildTest.h"
#include "ExitingChild.h"
#include "Transports.h"

namespace zarn::test {
namespace {

template <class Connection>
class TransportEnds : public ::testing::Test {};
TYPED_TEST_SUITE(TransportEnds, AllTransports, TransportNames);

template <class Connection>
class SocketTransportEnds : public ::testing::Test {};
TYPED_TEST_SUITE(SocketTransportEnds, SocketTransports, TransportNames);

// --- ends ---

TYPED_TEST(TransportEnds, OrderlyEndIsZeroAndComesAfterEverything) {
  TypeParam c;
  c.Open();
  const std::string text = Pattern(100000);
  const std::size_t sent = c.peer.Send(text);
  c.peer.Close();
  EXPECT_FALSE(c.sink.ended);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.reason, 0);
  EXPECT_TRUE(c.sink.received == text.substr(0, sent));
  EXPECT_FALSE(c.peer.HasEnded());  // who closes is told nothing
}

TYPED_TEST(SocketTransportEnds, PeerThatOnlyStopsSendingHasEnded) {
  TypeParam c;
  c.Open();
  c.peer.Send("bye");
  c.peer.ShutdownWrite();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "bye");
  EXPECT_EQ(c.sink.reason, 0);
}

TYPED_TEST(TransportEnds, SendingToAPeerThatHasJustGoneDoesNoHarm) {
  TypeParam c;
  c.Open();
  c.peer.Send("last words");
  c.peer.Close();
  EXPECT_EQ(c.Send("small"), AW_OK);
  EXPECT_FALSE(c.sink.ended);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "last words");
  EXPECT_NE(c.Send("more"), AW_OK);
}

TYPED_TEST(TransportEnds, SendAfterTheEndIsAnError) {
  TypeParam c;
  c.Open();
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.Send("x"), AW_ERROR_FAILURE);
  EXPECT_EQ(c.Send("x"), AW_ERROR_FAILURE);
  EXPECT_EQ(c.Send(Pattern(1000000)), AW_ERROR_FAILURE);
}

TYPED_TEST(TransportEnds, SinkThatFindsNoMemoryEndsItsConnection) {
  for (const bool onSend : {false, true}) {
    TypeParam c;
    if (onSend) c.Fill();
    (onSend ? c.sink.onSend : c.sink.onReceive) = [](auto*) { throw std::bad_alloc(); };
    c.Open();
    if (!onSend) c.peer.Send("x");
    EXPECT_TRUE(Await([&] {
      if (onSend) c.peer.Receive();
      return c.sink.ended;
    }));
    EXPECT_EQ(c.sink.reason, ENOMEM);
    c.transport->Disconnect(0);
    c.ReceiveAll();
  }
}

// --- letting go ---

TYPED_TEST(TransportEnds, NothingComesAfterDisconnect) {
  TypeParam c;
  c.Open();
  c.peer.Send("in time");
  EXPECT_TRUE(Await([&] { return c.sink.received == "in time"; }));
  c.peer.Send("too late");
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  EXPECT_EQ(c.ReceiveAll(), "");
  EXPECT_EQ(c.sink.received, "in time");
  EXPECT_FALSE(c.sink.ended);
  EXPECT_EQ(c.Send("x"), AW_ERROR_NOT_INITIALIZED);
}

TYPED_TEST(SocketTransportEnds, DisconnectWithUnreadInputLosesNothingAndIsAnOrderlyEnd) {
  TypeParam c;
  c.Open();
  c.StopReading(true);
  EXPECT_NE(c.peer.Send(Pattern(100000)), 0U);
  const std::string taken = c.Fill();
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  EXPECT_TRUE(c.ReceiveAll() == taken);
  EXPECT_EQ(c.peer.error, 0);
}

TYPED_TEST(TransportEnds, DisconnectInsideAReceiveEndsTheEvents) {
  TypeParam c;
  c.Set(keelbase::AW_OPT_READ_SIZE, std::uint32_t{40000});
  c.sink.onReceive = [](auto* transport) { transport->Disconnect(0); };
  c.Open();
  c.peer.Send(Pattern(100000));
  c.ReceiveAll();
  EXPECT_EQ(c.sink.receives, 1);
  EXPECT_FALSE(c.sink.ended);
}

TYPED_TEST(TransportEnds, DisconnectWhileTheRestIsDeliveredEndsTheEvents) {
  TypeParam c;
  c.Set(keelbase::AW_OPT_READ_SIZE, std::uint32_t{40000});
  c.sink.onReceive = [](auto* transport) { transport->Disconnect(0); };
  c.Open();
  c.StopReading(true);
  c.peer.Send(Pattern(100000));
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.receives != 0; }));
  Turn();
  EXPECT_EQ(c.sink.receives, 1);
  EXPECT_FALSE(c.sink.ended);
}

TYPED_TEST(TransportEnds, DisconnectInsideOnSendAndOnDisconnectIsAllowed) {
  {
    TypeParam c;
    c.sink.onSend = [](auto* transport) { transport->Disconnect(0); };
    c.Open();
    const std::string sent = c.Fill();
    EXPECT_TRUE(c.ReceiveAll() == sent);
    EXPECT_EQ(c.sink.sends, 1);
  }
  TypeParam c;
  c.sink.onDisconnect = [](auto* transport) { transport->Disconnect(0); };
  c.Open();
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  Turn();
}

TYPED_TEST(TransportEnds, LettingGoIsADisconnect) {
  TypeParam c;
  c.Open();
  EXPECT_EQ(c.Send("taken"), AW_OK);
  c.transport = nullptr;
  EXPECT_EQ(c.ReceiveAll(), "taken");
  EXPECT_EQ(c.peer.error, 0);
  EXPECT_FALSE(c.sink.ended);
}

TYPED_TEST(TransportEnds, LettingGoInsideEachCallbackIsAllowed) {
  {
    TypeParam c;
    c.sink.onReceive = [&](auto*) { c.transport = nullptr; };
    c.Open();
    c.peer.Send("x");
    c.ReceiveAll();
    EXPECT_EQ(c.sink.receives, 1);
  }
  {
    TypeParam c;
    c.sink.onReceive = [&](auto*) { c.transport = nullptr; };
    c.Open();
    c.StopReading(true);
    c.peer.Send("x");
    c.peer.Close();
    EXPECT_TRUE(Await([&] { return c.sink.receives == 1; }));
    Turn();
  }
  {
    TypeParam c;
    c.sink.onDisconnect = [&](auto*) { c.transport = nullptr; };
    c.Open();
    c.peer.Close();
    EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  }
  TypeParam c;
  c.sink.onSend = [&](auto*) { c.transport = nullptr; };
  c.Open();
  c.Fill();
  c.ReceiveAll();
  EXPECT_EQ(c.sink.sends, 1);
}

TYPED_TEST(TransportEnds, LetGoAndTakenAgainInsideACallbackGoesOn) {
  TypeParam c;
  c.sink.onReceive = [&](auto* transport) {
    c.transport = nullptr;
    c.transport = transport;
  };
  c.Open();
  c.peer.Send("x");
  EXPECT_TRUE(Await([&] { return c.sink.receives == 1; }));
  EXPECT_EQ(c.Send("answer"), AW_OK);
  EXPECT_TRUE(Await([&] { return c.peer.Receive() == "answer"; }));
  EXPECT_FALSE(c.sink.ended);
}

template <class Connection>
class SelfDeletingSink final : public Connection::Sink::Interface {
 public:
  using Transport = typename Connection::Transport;
  using Parameter = typename Connection::Parameter;

  SelfDeletingSink(CAWAutoPtr<Transport> transport, int& deleted)
      : transport_(std::move(transport)), deleted_(deleted) {
    transport_->OpenWithSink(this);
  }
  ~SelfDeletingSink() override { ++deleted_; }
  void OnReceive(CAWMessageBlock&, Transport*, Parameter*) override { delete this; }
  void OnSend(Transport*, Parameter*) override { delete this; }
  void OnDisconnect(long, Transport*) override { delete this; }

 private:
  CAWAutoPtr<Transport> transport_;
  int& deleted_;
};

TYPED_TEST(TransportEnds, SinkMayDeleteItselfInsideACallback) {
  for (const std::string kind : {"receive", "send", "end"}) {
    TypeParam c;
    int deleted = 0;
    if (kind == "send") c.Fill();
    new SelfDeletingSink<TypeParam>(std::move(c.transport), deleted);
    if (kind == "receive") c.peer.Send("x");
    if (kind != "send") c.peer.Close();
    EXPECT_TRUE(Await([&] {
      if (kind == "send") c.peer.Receive();
      return deleted != 0;
    })) << kind;
    Turn();
    EXPECT_EQ(deleted, 1);
  }
}

TYPED_TEST(TransportEnds, LastReferenceMayBeDroppedOnAnotherThread) {
  TypeParam c;
  c.Open();
  EXPECT_EQ(c.Send("taken"), AW_OK);
  std::thread([&] { c.transport = nullptr; }).join();
  EXPECT_EQ(c.ReceiveAll(), "taken");
}

TYPED_TEST(TransportEnds, NothingComesAfterTheLastReferenceWasDroppedOnAnotherThread) {
  TypeParam c;
  c.Open();
  EXPECT_EQ(c.Send("taken"), AW_OK);
  c.peer.Send("already here");
  std::thread([&] { c.transport = nullptr; }).join();
  EXPECT_EQ(c.ReceiveAll(), "taken");
  EXPECT_EQ(c.sink.receives, 0);
  EXPECT_FALSE(c.sink.ended);
}

TYPED_TEST(TransportEnds, AForkedChildThatExitsTouchesNoConnectionOfItsParent) {
  for (const bool disconnects : {false, true}) {
    TypeParam c;
    c.Open();
    EXPECT_EQ(c.Send("taken"), AW_OK);
    EXPECT_TRUE(ExitInChild([&] {
      if (disconnects) c.transport->Disconnect(0);
      c.transport = nullptr;
    }));
    c.peer.Send("still heard");
    EXPECT_TRUE(Await([&] { return c.sink.received == "still heard"; }));
    EXPECT_FALSE(c.peer.HasEnded());
    c.transport = nullptr;
    EXPECT_EQ(c.ReceiveAll(), "taken");
  }
}

// Its callbacks might take a lock that the one which calls exit() holds.
TYPED_TEST(SocketTransportEnds, AProcessThatExitsInACallbackIsToldNothingMoreAndStillSends) {
  if (ChildTest::Role() == "exits") {
    static auto& ended = *new TypeParam;  // none is let go of at exit
    static auto& live = *new TypeParam;
    static auto& caller = *new TypeParam;
    ended.sink.onReceive = ended.sink.onDisconnect = [](auto*) { ::_exit(1); };
    caller.sink.onReceive = [](auto*) {
      ended.peer.Close();
      ended.Send("to nobody");
      live.Send("accepted");
      atLast.act = [] {
        if (live.peer.Receive() != "accepted") ::_exit(2);
      };
      std::exit(7);
    };
    for (TypeParam* c : {&ended, &live, &caller}) c->Open();
    bool stop = true;
    ended.transport->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    ended.peer.Send("unread");
    caller.peer.Send("exit");
    Await([] { return false; });
    ::_exit(3);
  }
  ChildTest child("exits");
  EXPECT_EQ(child.Wait(), 7) << child.GetErrors();
}

#ifndef NDEBUG
TYPED_TEST(TransportEnds, WrongThreadStopsADebugBuildAndIsNamed) {
  if (ChildTest::Role() == "misuse") {
    TypeParam c;
    auto* network =
        keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
    std::thread([&] {
      network->Call([] {});  // the loop runs
      c.transport->Disconnect(0);
    }).detach();
    network->Run();
    std::exit(0);
  }
  ChildTest child("misuse");
  EXPECT_EQ(child.Wait(), -SIGABRT);
  const std::string errors = child.GetErrors();
  EXPECT_NE(errors.find("Disconnect belongs to thread "), std::string::npos) << errors;
  EXPECT_NE(errors.find(" and was used from thread "), std::string::npos) << errors;
}
#endif

}  // namespace
}  // namespace zarn::test
