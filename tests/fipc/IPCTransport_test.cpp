// IPCTransport_test.cpp - what is particular to connections of local IPC, whose other end is a
// plain socket here. What all transports do alike is tested in tests/transports.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>

#include "ChildTest.h"
#include "PassDescriptors.h"
#include "RealIpc.h"
#include "VirtualSlot.h"
#include "fipc/CAWIPCTransport.h"

namespace fipc {
namespace {

using namespace zarn::test;

TEST(IPCTransport, OfAnAcceptorRefusesDescriptorsWhereTheSystemCan) {
  const Connection c;
  EXPECT_NE(SendWithDescriptors(c.peer.Get(), "x", 1, {c.peer.Get()}), DescriptorsCanBeRefused());
}

// --- ends ---

TEST(IPCTransport, PeerThatLeavesBytesUnreadIsAReset) {
  Connection c;
  c.Open();
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
  c.Open();
  const std::size_t sent = c.peer.Send(text);
  c.peer.Close();
  EXPECT_NE(c.Send(Pattern(100000)), AW_OK);  // fails before anything was read
  EXPECT_FALSE(c.sink.ended);
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, text.substr(0, sent));
  EXPECT_GT(sent, 65536U);
  EXPECT_NE(c.sink.reason, 0);
}

// --- closing and ending the process ---

// What the exiting process sends before it goes.
std::string ExitText() { return Pattern(4000000); }

void ConnectSendAndClose(const std::string& path, IndicationSink& sink, TransportSink& events,
                         bool exitInside) {
  static CAWAutoPtr<IAWIPCConnector> connector;
  connector = MakeConnector();
  sink.keep = false;
  sink.onIndication = [&events, exitInside](IAWIPCTransport* transport) {
    if (transport == nullptr) std::exit(9);
    transport->OpenWithSink(&events);
    static std::string all = ExitText();
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    transport->SendData(block, nullptr);  // as much as goes, then the rest as a stream would
    if (transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block) != AW_OK) std::exit(8);
    transport->Disconnect(0);
    if (exitInside) std::exit(0);
  };
  if (connector->AsyncConnect(&sink, CAWIPCAddr(path), 0, nullptr) != AW_OK) std::exit(7);
}

// In a child: connects on the adopted network thread or on the started task thread, and ends there
// or on the main thread.
void RunExitingChild(const std::string& role) {
  using keelbase::CAWThreadManager;
  static IndicationSink sink;
  static TransportSink events;
  const std::string path = ChildTest::Argument();
  const bool inside = role.find("inside") != std::string::npos;
  if (role.find("adopted") == 0) {
    ConnectSendAndClose(path, sink, events, inside);
    if (role == "adopted inside run")
      CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK)->Run();
    Await([] { return sink.count == 1; });
    std::exit(0);
  }
  auto* task = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_TASK);
  task->Call([&] { ConnectSendAndClose(path, sink, events, inside); });
  while (task->Call([] { return sink.count; }) == 0) std::this_thread::yield();
  std::exit(0);
}

TEST(IPCTransport, ProcessThatClosesAndEndsLosesNothing) {
  if (!ChildTest::Role().empty()) RunExitingChild(ChildTest::Role());
  for (const char* role :
       {"adopted", "adopted inside", "adopted inside run", "started", "started inside"}) {
    const TempDir dir;
    PlainSocket listening = PlainSocket::Stream();
    ASSERT_EQ(listening.Bind(dir.GetPath() + "/1_2"), 0);
    ASSERT_EQ(listening.Listen(), 0);
    ChildTest child(role, dir.GetPath() + "/1_2");
    pollfd ready{listening.Get(), POLLIN, 0};
    ASSERT_EQ(::poll(&ready, 1, 20000), 1) << role << child.GetErrors();
    PlainSocket peer = listening.Accept();
    std::string got;
    while (!peer.ended) {
      pollfd more{peer.Get(), POLLIN, 0};
      ASSERT_EQ(::poll(&more, 1, 20000), 1) << role;
      got += peer.Receive(50000);
    }
    EXPECT_EQ(child.Wait(), 0) << role << child.GetErrors();
    EXPECT_TRUE(got == ExitText()) << role << " " << got.size();
  }
}

TEST(IPCTransport, VirtualFunctionsOfTransportAndSinkKeepTheirSlots) {
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
