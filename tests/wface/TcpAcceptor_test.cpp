// TcpAcceptor_test.cpp - listening, accepting, stopping.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "DescriptorShortage.h"
#include "RealTcp.h"

namespace wface {
namespace {

using namespace zarn::test;
using namespace zarn::test::tcp;
using zarn::test::tcp::IndicationSink;
using zarn::test::tcp::MakeAcceptor;
using zarn::test::tcp::Server;
using zarn::test::tcp::TransportSink;

TEST(TcpAcceptor, PortZeroIsAFreeOneAndIsTold) {
  const auto acceptor = MakeAcceptor();
  EXPECT_EQ(acceptor->GetLocalAddr(), CAWInetAddr());
  IndicationSink sink;
  EXPECT_EQ(acceptor->StartListen(&sink, Loopback(), 0), AW_OK);
  EXPECT_EQ(acceptor->GetLocalAddr().GetIpDisplayName(), "127.0.0.1");
  EXPECT_NE(acceptor->GetLocalAddr().GetPort(), 0);
}

TEST(TcpAcceptor, EveryAddressOfTheMachineCanBeListenedAt) {
  const auto acceptor = MakeAcceptor();
  IndicationSink sink;
  EXPECT_EQ(acceptor->StartListen(&sink, CAWInetAddr(), 5), AW_OK);
  PlainTcp client;
  client.Connect(Loopback(acceptor->GetLocalAddr().GetPort()));
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  CAWInetAddr local;
  EXPECT_EQ(sink.got[0].transport->GetOption(104, &local), AW_OK);
  EXPECT_EQ(local.GetIpDisplayName(), "127.0.0.1");  // the one that the client came to
}

TEST(TcpAcceptor, EachFailureHasItsReason) {
  Server server;
  const auto acceptor = MakeAcceptor();
  IndicationSink sink;
  EXPECT_EQ(acceptor->StartListen(nullptr, Loopback(), 0), AW_ERROR_FAILURE);
  EXPECT_EQ(acceptor->StartListen(&sink, server.Address(), 0), AWResult{EADDRINUSE});
  EXPECT_EQ(acceptor->StartListen(&sink, CAWInetAddr("192.0.2.1", 0), 0), AWResult{EADDRNOTAVAIL});
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(acceptor->StartListen(&sink, Loopback(), 0), AWResult{EMFILE});
  }
  EXPECT_EQ(acceptor->StartListen(&sink, Loopback(), 0), AW_OK);
  EXPECT_EQ(acceptor->StartListen(&sink, Loopback(), 0), AW_ERROR_FAILURE);
}

TEST(TcpAcceptor, PortCanBeListenedAtAgainAtOnceWhileConnectionsLinger) {
  const auto acceptor = MakeAcceptor();
  IndicationSink sink;
  ASSERT_EQ(acceptor->StartListen(&sink, Loopback(), 0), AW_OK);
  const CAWInetAddr address = acceptor->GetLocalAddr();
  PlainTcp client;
  client.Connect(address);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(acceptor->StopListen(), AW_OK);
  EXPECT_EQ(acceptor->StopListen(), AW_OK);
  EXPECT_EQ(acceptor->StartListen(&sink, address, 0), AW_OK);  // one connection is open still
  acceptor->StopListen();
  sink.got.clear();  // closed from this side: the port is in its time of waiting
  EXPECT_EQ(acceptor->StartListen(&sink, address, 0), AW_OK);
}

TEST(TcpAcceptor, AcceptedConnectionsGoOnAfterTheStop) {
  Server server;
  PlainTcp client;
  client.Connect(server.Address());
  const auto transport = server.Accept();
  server.GetAcceptor().StopListen();
  TransportSink events;
  transport->OpenWithSink(&events);
  client.Send("still here");
  EXPECT_TRUE(Await([&] { return events.received == "still here"; }));
}

TEST(TcpAcceptor, NothingIsIndicatedAfterTheStop) {
  Server server;
  PlainTcp client;
  client.Connect(server.Address());
  server.GetAcceptor().StopListen();
  Turn();
  EXPECT_EQ(server.sink.count, 0);
}

TEST(TcpAcceptor, MayBeStoppedAndLetGoInsideItsIndication) {
  auto acceptor = MakeAcceptor();
  IndicationSink sink;
  sink.onIndication = [&](IAWTransport*) {
    acceptor->StopListen();
    acceptor = nullptr;
  };
  ASSERT_EQ(acceptor->StartListen(&sink, Loopback(), 0), AW_OK);
  const CAWInetAddr address = acceptor->GetLocalAddr();
  std::vector<PlainTcp> clients(3);
  for (auto& client : clients) client.Connect(address);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  Turn();
  EXPECT_EQ(sink.count, 1);
}

TEST(TcpAcceptor, ThreadThatLetGoOfItMayListenThereAtOnce) {
  auto acceptor = MakeAcceptor();
  IndicationSink sink;
  ASSERT_EQ(acceptor->StartListen(&sink, Loopback(), 0), AW_OK);
  const CAWInetAddr address = acceptor->GetLocalAddr();
  std::atomic<bool> done{false};
  std::thread other([&] {
    acceptor = nullptr;
    acceptor = MakeAcceptor();
    EXPECT_EQ(acceptor->StartListen(&sink, address, 0), AW_OK);
    done = true;
  });
  EXPECT_TRUE(Await([&] { return done.load(); }));
  other.join();
}

TEST(TcpAcceptor, ConnectionThatNobodyTookIsClosed) {
  Server server;
  server.sink.keep = false;
  PlainTcp client;
  client.Connect(server.Address());
  EXPECT_TRUE(Await([&] {
    client.Receive();
    return client.ended;
  }));
}

TEST(TcpAcceptor, ClientThatIsGoneAgainHurtsNobodyElse) {
  Server server;
  for (int i = 0; i < 10; ++i) {
    PlainTcp hasty;
    hasty.Connect(server.Address());
    hasty.Reset();
  }
  PlainTcp client;
  client.Connect(server.Address());
  EXPECT_TRUE(Await([&] {
    for (const auto& indication : server.sink.got) {
      CAWInetAddr peer;
      indication.transport->GetOption(105, &peer);
      if (peer == client.LocalAddress()) return true;
    }
    return false;
  }));
}

TEST(TcpAcceptor, LackOfDescriptorsPausesItAndWhoWaitsIsAcceptedLater) {
  Server server;
  PlainTcp client;
  {
    client.Connect(server.Address());
    const DescriptorShortage shortage;
    for (int i = 0; i < 50; ++i) RunReady();
    EXPECT_EQ(server.sink.count, 0);
  }
  EXPECT_TRUE(Await([&] { return server.sink.count == 1; }));
}

TEST(TcpAcceptor, FourHundredConnectionsAtOnceAreAllAccepted) {
  Server server;
  server.sink.keep = false;
  std::vector<PlainTcp> clients(400);
  for (auto& client : clients) {
    const int error = client.Connect(server.Address());
    ASSERT_TRUE(error == 0 || error == EINPROGRESS);
  }
  EXPECT_TRUE(Await([&] { return server.sink.count == 400; }));
}

}  // namespace
}  // namespace wface
