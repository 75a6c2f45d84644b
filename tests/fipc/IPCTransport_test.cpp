// IPCTransport_test.cpp - opening, receiving, ending and letting go of a connection. The other end
// is a plain socket.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChildTest.h"
#include "RealIpc.h"
#include "VirtualSlot.h"
#include "fipc/CAWIPCTransport.h"

namespace fipc {
namespace {

using namespace zarn::test;

// --- opening ---

TEST(IPCTransport, EarlyBytesWaitForTheOpen) {
  Connection c;
  c.peer.Send("early");
  RunReady();
  RunReady();
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_OK);
  EXPECT_EQ(c.sink.received, "");  // not from inside
  EXPECT_TRUE(Await([&] { return c.sink.received == "early"; }));
}

TEST(IPCTransport, SecondOpenAndNullSinkAreMisuse) {
  Connection c;
  EXPECT_EQ(c.transport->OpenWithSink(nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_OK);
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_ERROR_FAILURE);
  TransportSink other;
  EXPECT_EQ(c.transport->OpenWithSink(&other), AW_ERROR_FAILURE);
  c.peer.Send("x");
  EXPECT_TRUE(Await([&] { return c.sink.received == "x"; }));
  EXPECT_EQ(other.received, "");
}

TEST(IPCTransport, OpenOnADeadConnectionIsFollowedByItsEnd) {
  Connection c;
  c.peer.Send("last words");
  c.peer.Close();
  RunReady();
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_OK);
  EXPECT_FALSE(c.sink.ended);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "last words");
  EXPECT_EQ(c.sink.reason, 0);
}

TEST(IPCTransport, OpenAfterDisconnectIsMisuse) {
  Connection c;
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_ERROR_FAILURE);
}

TEST(IPCTransport, SendingBeforeTheOpenSurvivesThePeersEnd) {
  Connection c;
  while (c.Send(Pattern(60000)) == AW_OK) {
  }
  c.peer.Send("unread");
  RunReady();
  c.peer.Close();
  for (int i = 0; i < 100; ++i) RunReady();
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_OK);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "unread");
}

TEST(IPCTransport, RoomThatCameBeforeTheOpenIsToldAfterIt) {
  Connection c;
  AWResult result = AW_OK;
  while ((result = c.Send(Pattern(60000))) == AW_OK) {
  }
  EXPECT_EQ(result, AW_ERROR_PARTIAL_DATA);
  std::string got;
  for (int i = 0; i < 100; ++i) {
    got += c.peer.Receive();
    RunReady();
  }
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_OK);
  EXPECT_TRUE(Await([&] { return c.sink.sends == 1; }));
}

// --- ends ---

TEST(IPCTransport, OrderlyEndIsZero) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Send("all of it");
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.reason, 0);
  EXPECT_EQ(c.sink.received, "all of it");
}

TEST(IPCTransport, PeerThatLeavesBytesUnreadIsAReset) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  EXPECT_EQ(c.Send("never read"), AW_OK);
  RunReady();
  c.peer.Send("but answered");
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.reason, ECONNRESET);
  EXPECT_EQ(c.sink.received, "but answered");
}

TEST(IPCTransport, WhatWasReceivedComesBeforeTheEndAlsoWhenAWriteFails) {
  Connection c;
  const std::string text = Pattern(150000);
  std::size_t sent = 0;
  c.transport->OpenWithSink(&c.sink);
  sent = c.peer.Send(text);
  c.peer.Close();
  EXPECT_NE(c.Send(Pattern(100000)), AW_OK);  // fails before anything was read
  EXPECT_FALSE(c.sink.ended);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, text.substr(0, sent));
  EXPECT_GT(sent, 65536U);
  EXPECT_NE(c.sink.reason, 0);
}

TEST(IPCTransport, GatheredBytesThatCannotBeWrittenEndTheConnectionLater) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Close();
  EXPECT_EQ(c.Send("small"), AW_OK);
  EXPECT_FALSE(c.sink.ended);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_NE(c.Send("more"), AW_OK);
}

TEST(IPCTransport, PeerThatOnlyStopsSendingHasEnded) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Send("bye");
  c.peer.ShutdownWrite();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "bye");
  EXPECT_EQ(c.sink.reason, 0);
}

// --- reading ---

TEST(IPCTransport, OneEventHoldsAtMost65535Bytes) {
  Connection c;
  std::size_t largest = 0;
  std::size_t before = 0;
  c.sink.onReceive = [&](IAWIPCTransport*) {
    largest = std::max(largest, c.sink.received.size() - before);
    before = c.sink.received.size();
  };
  const std::string text = Pattern(150000);
  const std::size_t sent = c.peer.Send(text);
  c.transport->OpenWithSink(&c.sink);
  EXPECT_TRUE(Await([&] { return c.sink.received.size() == sent; }));
  EXPECT_EQ(c.sink.received, text.substr(0, sent));
  EXPECT_EQ(largest, 65535U);
  EXPECT_EQ(c.Counters().bytesReceived, sent);
  EXPECT_EQ(c.Counters().blocksReceived, static_cast<std::uint64_t>(c.sink.receives));
}

class KeepingSink final : public IAWIPCTransportSink {
 public:
  ~KeepingSink() override {
    for (CAWMessageBlock* block : kept) block->DestroyChained();
  }
  void OnReceive(CAWMessageBlock& data, IAWIPCTransport*, CAWIPCTransportParameter*) override {
    kept.push_back(data.DuplicateChained());
  }
  void OnSend(IAWIPCTransport*, CAWIPCTransportParameter*) override {}
  void OnDisconnect(long, IAWIPCTransport*) override {}
  std::vector<CAWMessageBlock*> kept;
};

TEST(IPCTransport, ReceivedBytesMayBeKept) {
  Connection c;
  KeepingSink sink;
  c.transport->OpenWithSink(&sink);
  for (std::size_t i = 0; i < 5; ++i) {
    c.peer.Send("message " + std::to_string(i));
    EXPECT_TRUE(Await([&] { return sink.kept.size() == i + 1; }));
  }
  for (std::size_t i = 0; i < 5; ++i)
    EXPECT_EQ(sink.kept[i]->FlattenChained(), "message " + std::to_string(i));
  c.transport->Disconnect(0);
}

void StopReading(IAWIPCTransport* transport, bool stop) {
  EXPECT_EQ(transport->SetOption(keelbase::AW_OPT_STOP_READING, &stop), AW_OK);
}

TEST(IPCTransport, StoppedReadingLetsBytesWait) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  StopReading(c.transport.Get(), true);
  c.peer.Send("later");
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_EQ(c.sink.received, "");
  StopReading(c.transport.Get(), false);
  EXPECT_TRUE(Await([&] { return c.sink.received == "later"; }));
}

TEST(IPCTransport, EndIsNoticedWhileReadingIsStoppedAndTheRestComesFirst) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  StopReading(c.transport.Get(), true);
  const std::string text = Pattern(180000);
  const std::size_t sent = c.peer.Send(text);
  RunReady();
  EXPECT_EQ(c.sink.received, "");
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, text.substr(0, sent));
  EXPECT_EQ(c.sink.reason, 0);
}

TEST(IPCTransport, ReadingMayBeStoppedInsideTheEvent) {
  Connection c;
  c.sink.onReceive = [](IAWIPCTransport* transport) { StopReading(transport, true); };
  c.transport->OpenWithSink(&c.sink);
  const std::size_t sent = c.peer.Send(Pattern(150000));
  EXPECT_TRUE(Await([&] { return c.sink.receives == 1; }));
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_EQ(c.sink.receives, 1);
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, Pattern(sent));
}

// --- letting go ---

TEST(IPCTransport, NothingComesAfterDisconnect) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Send("too late");
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  EXPECT_EQ(c.ReceiveAll(), "");
  EXPECT_EQ(c.sink.receives, 0);
  EXPECT_FALSE(c.sink.ended);
  EXPECT_EQ(c.Send("x"), AW_ERROR_NOT_INITIALIZED);
}

TEST(IPCTransport, DisconnectInsideAReceiveEndsTheEvents) {
  Connection c;
  c.sink.onReceive = [](IAWIPCTransport* transport) { transport->Disconnect(0); };
  c.transport->OpenWithSink(&c.sink);
  c.peer.Send(Pattern(150000));
  c.ReceiveAll();
  EXPECT_EQ(c.sink.receives, 1);
  EXPECT_FALSE(c.sink.ended);
}

TEST(IPCTransport, DisconnectWhileTheRestIsDeliveredEndsTheEvents) {
  Connection c;
  c.sink.onReceive = [](IAWIPCTransport* transport) { transport->Disconnect(0); };
  c.transport->OpenWithSink(&c.sink);
  StopReading(c.transport.Get(), true);
  c.peer.Send(Pattern(150000));
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.receives != 0; }));
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_EQ(c.sink.receives, 1);
  EXPECT_FALSE(c.sink.ended);
}

TEST(IPCTransport, LettingGoIsADisconnect) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  EXPECT_EQ(c.Send("taken"), AW_OK);
  c.transport = nullptr;
  EXPECT_EQ(c.ReceiveAll(), "taken");
  EXPECT_FALSE(c.sink.ended);
}

TEST(IPCTransport, LettingGoInsideEachCallbackIsAllowed) {
  {
    Connection c;
    c.sink.onReceive = [&](IAWIPCTransport*) { c.transport = nullptr; };
    c.transport->OpenWithSink(&c.sink);
    c.peer.Send("x");
    c.ReceiveAll();
    EXPECT_EQ(c.sink.receives, 1);
  }
  {
    Connection c;
    c.sink.onDisconnect = [&](IAWIPCTransport*) { c.transport = nullptr; };
    c.transport->OpenWithSink(&c.sink);
    c.peer.Close();
    EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  }
  {
    Connection c;
    c.sink.onSend = [&](IAWIPCTransport*) { c.transport = nullptr; };
    c.transport->OpenWithSink(&c.sink);
    while (c.Send(Pattern(60000)) == AW_OK) {
    }
    c.ReceiveAll();
    EXPECT_EQ(c.sink.sends, 1);
  }
}

class SelfDeletingSink final : public IAWIPCTransportSink {
 public:
  SelfDeletingSink(CAWAutoPtr<IAWIPCTransport> transport, int& deleted)
      : transport_(std::move(transport)), deleted_(deleted) {
    transport_->OpenWithSink(this);
  }
  ~SelfDeletingSink() override { ++deleted_; }
  void OnReceive(CAWMessageBlock&, IAWIPCTransport*, CAWIPCTransportParameter*) override {
    delete this;
  }
  void OnSend(IAWIPCTransport*, CAWIPCTransportParameter*) override {}
  void OnDisconnect(long, IAWIPCTransport*) override { delete this; }

 private:
  CAWAutoPtr<IAWIPCTransport> transport_;
  int& deleted_;
};

TEST(IPCTransport, SinkMayDeleteItselfInsideACallback) {
  for (const bool withBytes : {true, false}) {
    Connection c;
    int deleted = 0;
    new SelfDeletingSink(std::move(c.transport), deleted);
    if (withBytes) c.peer.Send("x");
    c.peer.Close();
    EXPECT_TRUE(Await([&] { return deleted != 0; }));
    for (int i = 0; i < 20; ++i) RunReady();
    EXPECT_EQ(deleted, 1);
  }
}

TEST(IPCTransport, LastReferenceMayBeDroppedOnAnotherThread) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  EXPECT_EQ(c.Send("taken"), AW_OK);
  std::thread([&] { c.transport = nullptr; }).join();
  EXPECT_EQ(c.ReceiveAll(), "taken");
}

TEST(IPCTransport, NothingComesAfterTheLastReferenceWasDroppedOnAnotherThread) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Send("already here");
  std::thread([&] { c.transport = nullptr; }).join();
  c.ReceiveAll();
  EXPECT_EQ(c.sink.receives, 0);
  EXPECT_FALSE(c.sink.ended);
}

#ifndef NDEBUG
TEST(IPCTransport, WrongThreadStopsADebugBuildAndIsNamed) {
  if (ChildTest::Role() == "misuse") {
    Server server(ChildTest::Argument());
    PlainSocket client = PlainSocket::Stream();
    auto transport = server.AcceptFrom(client);
    std::thread([&] {
      auto* network =
          keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
      network->Call([] {});  // the loop runs
      transport->Disconnect(0);
    }).detach();
    keelbase::CAWThreadManager::Instance()
        ->GetThread(keelbase::CAWThreadManager::TT_NETWORK)
        ->Run();
    std::exit(0);
  }
  const TempDir dir;
  ChildTest child("misuse", dir.GetPath() + "/1_2");
  EXPECT_EQ(child.Wait(), -SIGABRT);
  const std::string errors = child.GetErrors();
  EXPECT_NE(errors.find("Disconnect belongs to thread "), std::string::npos) << errors;
  EXPECT_NE(errors.find(" and was used from thread "), std::string::npos) << errors;
}
#endif

// --- options ---

TEST(IPCTransport, UnknownOptionsAndNullAreRefused) {
  Connection c;
  bool flag = true;
  EXPECT_EQ(c.transport->GetOption(9999, &flag), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->SetOption(9999, &flag), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->GetOption(keelbase::AW_OPT_PEER_ADDRESS, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER, nullptr), AW_ERROR_FAILURE);
}

TEST(IPCTransport, CredentialsAreThoseOfThePeer) {
  Connection c;
  keelbase::CAWPeerCredentials who;
  EXPECT_EQ(c.transport->GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, &who), AW_OK);
  EXPECT_EQ(who.processId, ::getpid());
  EXPECT_EQ(who.userId, ::geteuid());
  EXPECT_EQ(who.groupId, ::getegid());
}

TEST(IPCTransport, SlotsOfTransportAndSink) {
  EXPECT_EQ(VirtualSlot(&IAWIPCTransportSink::OnReceive), 0);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransportSink::OnSend), 1);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransportSink::OnDisconnect), 2);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransport::AddReference), 0);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransport::ReleaseReference), 1);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransport::OpenWithSink), 2);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransport::SendData), 3);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransport::Disconnect), 4);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransport::GetOption), 5);
  EXPECT_EQ(VirtualSlot(&IAWIPCTransport::SetOption), 6);
}

}  // namespace
}  // namespace fipc
