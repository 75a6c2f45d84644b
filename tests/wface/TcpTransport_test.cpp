// TcpTransport_test.cpp - a connection: what it is set to, opening, sending, receiving, ending. The
// other end is a plain socket. What all stream sockets do alike is tested with local IPC as well.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "RealTcp.h"
#include "TcpSocket.h"
#include "VirtualSlot.h"

namespace wface {
namespace {

using namespace zarn::test;
using namespace zarn::test::tcp;
using zarn::test::tcp::Connection;
using zarn::test::tcp::IndicationSink;
using zarn::test::tcp::Server;
using zarn::test::tcp::TransportSink;

int Option(int socket, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(socket, level, option, &value, &size), 0);
  return value;
}

// The descriptor of the socket with this address in this process.
int DescriptorOf(const CAWInetAddr& local, const CAWInetAddr& peer) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    TcpEnds ends;
    if (GetEnds(descriptor, ends) == 0 && ends.local == local && ends.peer == peer)
      return descriptor;
  }
  return -1;
}

int DescriptorOf(IAWTransport& transport) {
  CAWInetAddr local;
  CAWInetAddr peer;
  transport.GetOption(104, &local);
  transport.GetOption(105, &peer);
  return DescriptorOf(local, peer);
}

void ExpectSetting(int socket, int idle, int interval, int userTimeout) {
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(Option(socket, SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_KEEPIDLE), idle);
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_KEEPINTVL), interval);
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_KEEPCNT), 4);
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT), userTimeout);
  EXPECT_EQ(::fcntl(socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(::fcntl(socket, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST(TcpTransport, BothEndsAreSetToNoDelayKeepAliveAndCloseOnExec) {
  Server server;
  const auto connector = zarn::test::tcp::MakeConnector();
  IndicationSink sink;
  connector->AsyncConnect(&sink, server.Address(), nullptr, nullptr);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  const auto accepted = server.Accept();
  ExpectSetting(DescriptorOf(*sink.got[0].transport), 10, 5, 30000);
  ExpectSetting(DescriptorOf(*accepted), 10, 5, 30000);
}

TEST(TcpTransport, SilenceLimitCanBeSetWithinBounds) {
  Connection c;
  for (std::uint32_t limit : {0U, 2999U, 86400001U})
    EXPECT_EQ(c.transport->SetOption(AW_OPT_SILENCE_LIMIT, &limit), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->SetOption(AW_OPT_SILENCE_LIMIT, nullptr), AW_ERROR_FAILURE);
  ExpectSetting(DescriptorOf(*c.transport), 10, 5, 30000);
  std::uint32_t limit = 3000;
  EXPECT_EQ(c.transport->SetOption(AW_OPT_SILENCE_LIMIT, &limit), AW_OK);
  ExpectSetting(DescriptorOf(*c.transport), 1, 1, 3000);
  limit = 86400000;
  EXPECT_EQ(c.transport->SetOption(AW_OPT_SILENCE_LIMIT, &limit), AW_OK);
  ExpectSetting(DescriptorOf(*c.transport), 28800, 14400, 86400000);
}

TEST(TcpTransport, UnknownOptionsAndNullAreRefused) {
  Connection c;
  bool flag = true;
  EXPECT_EQ(c.transport->GetOption(9999, &flag), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->SetOption(9999, &flag), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, &flag), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->GetOption(105, nullptr), AW_ERROR_FAILURE);
}

// --- opening and receiving ---

TEST(TcpTransport, EarlyBytesWaitForTheOpenAndMisuseIsRefused) {
  Connection c;
  c.peer.Send("early");
  RunReady();
  EXPECT_EQ(c.transport->OpenWithSink(nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_OK);
  EXPECT_EQ(c.sink.received, "");  // not from inside
  EXPECT_EQ(c.transport->OpenWithSink(&c.sink), AW_ERROR_FAILURE);
  EXPECT_TRUE(Await([&] { return c.sink.received == "early"; }));
}

TEST(TcpTransport, OpenOnADeadConnectionIsFollowedByItsEnd) {
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

TEST(TcpTransport, OneEventHoldsAtMost65535BytesAndNothingIsLost) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::size_t largest = 0;
  std::size_t before = 0;
  c.sink.onReceive = [&](IAWTransport*) {
    largest = std::max(largest, c.sink.received.size() - before);
    before = c.sink.received.size();
  };
  const std::string text = Pattern(2000000);
  std::size_t sent = 0;
  EXPECT_TRUE(Await([&] {
    if (sent < text.size()) sent += c.peer.Send(text.substr(sent, 300000));
    return c.sink.received.size() == text.size();
  }));
  EXPECT_TRUE(c.sink.received == text);
  EXPECT_LE(largest, 65535U);
}

// --- ends ---

TEST(TcpTransport, OrderlyEndIsZeroAndAResetIsNot) {
  {
    Connection c;
    c.transport->OpenWithSink(&c.sink);
    c.peer.Send("all of it");
    c.peer.Close();
    EXPECT_TRUE(Await([&] { return c.sink.ended; }));
    EXPECT_EQ(c.sink.reason, 0);
    EXPECT_EQ(c.sink.received, "all of it");
  }
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Reset();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.reason, ECONNRESET);
}

TEST(TcpTransport, WhatWasReceivedComesBeforeTheEndAlsoToAnOwnerWhoHadStoppedReading) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  bool stop = true;
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_STOP_READING, &stop), AW_OK);
  const std::string text = Pattern(100000);
  const std::size_t sent = c.peer.Send(text);
  RunReady();
  EXPECT_EQ(c.sink.received, "");
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_TRUE(c.sink.received == text.substr(0, sent));
}

TEST(TcpTransport, NothingComesAfterDisconnectAndSendingIsRefused) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Send("too late");
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  c.ReceiveAll();
  EXPECT_EQ(c.sink.receives, 0);
  EXPECT_FALSE(c.sink.ended);
  EXPECT_EQ(c.Send("x"), AW_ERROR_NOT_INITIALIZED);
}

TEST(TcpTransport, LettingGoInsideEachCallbackIsAllowed) {
  {
    Connection c;
    c.sink.onReceive = [&](IAWTransport*) { c.transport = nullptr; };
    c.transport->OpenWithSink(&c.sink);
    c.peer.Send("x");
    c.ReceiveAll();
    EXPECT_EQ(c.sink.receives, 1);
  }
  {
    Connection c;
    c.sink.onDisconnect = [&](IAWTransport*) { c.transport = nullptr; };
    c.transport->OpenWithSink(&c.sink);
    c.peer.Close();
    EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  }
  Connection c;
  c.sink.onSend = [&](IAWTransport*) { c.transport = nullptr; };
  c.transport->OpenWithSink(&c.sink);
  while (c.Send(Pattern(60000)) == AW_OK) {
  }
  c.ReceiveAll();
  EXPECT_EQ(c.sink.sends, 1);
}

class SelfDeletingSink final : public IAWTransportSink {
 public:
  SelfDeletingSink(CAWAutoPtr<IAWTransport> transport, int& deleted)
      : transport_(std::move(transport)), deleted_(deleted) {
    transport_->OpenWithSink(this);
  }
  ~SelfDeletingSink() override { ++deleted_; }
  void OnReceive(CAWMessageBlock&, IAWTransport*, CAWTransportParameter*) override { delete this; }
  void OnSend(IAWTransport*, CAWTransportParameter*) override {}
  void OnDisconnect(long, IAWTransport*) override { delete this; }

 private:
  CAWAutoPtr<IAWTransport> transport_;
  int& deleted_;
};

TEST(TcpTransport, SinkMayDeleteItselfInsideACallback) {
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

TEST(TcpTransport, LastReferenceMayBeDroppedOnAnotherThread) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  EXPECT_EQ(c.Send("taken"), AW_OK);
  std::thread([&] { c.transport = nullptr; }).join();
  EXPECT_EQ(c.ReceiveAll(), "taken");
}

// --- sending ---

TEST(TcpTransport, SmallSendsOfATurnAreOneWrite) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = "message " + std::to_string(i) + ";";
    EXPECT_EQ(c.Send(text), AW_OK);
    expected += text;
  }
  RunReady();
  EXPECT_EQ(c.Counters().systemCallsSent, 1U);
  c.transport->Disconnect(0);
  EXPECT_EQ(c.ReceiveAll(), expected);
}

TEST(TcpTransport, PartialSendStopsAtTheFirstByteThatWasNotTakenAndIsFollowedByOneOnSend) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  const std::string text = Pattern(20000000);
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  ASSERT_EQ(c.transport->SendData(block, nullptr), AW_ERROR_PARTIAL_DATA);
  EXPECT_EQ(c.sink.sends, 0);
  std::string got;
  c.sink.onSend = [&](IAWTransport* transport) { transport->SendData(block, nullptr); };
  EXPECT_TRUE(Await([&] {
    got += c.peer.Receive();
    return got.size() == text.size();
  }));
  EXPECT_TRUE(got == text);
  EXPECT_GE(c.sink.sends, 1);
}

TEST(TcpTransport, TakenBytesAndLingerDataAreWrittenAfterDisconnect) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string expected;
  while (c.Send(Pattern(1000, expected.size())) == AW_OK)
    expected += Pattern(1000, expected.size());
  const std::string rest = Pattern(3000000, expected.size());
  CAWMessageBlock chain(rest.data(), rest.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &chain), AW_OK);
  c.transport->Disconnect(0);
  c.transport = nullptr;
  EXPECT_TRUE(c.ReceiveAll() == expected + rest);
}

TEST(TcpTransport, SlowReaderCostsTheTransportNoMoreThanItsGatherBuffer) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  for (int i = 0; i < 10000; ++i) c.Send(Pattern(5000));
  EXPECT_LE(c.Counters().queuedHighMark, 65536U);
  EXPECT_LE(c.Counters().queuedBytes, 65536U);
}

TEST(TcpTransport, SlotsOfTransportAndSink) {
  EXPECT_EQ(VirtualSlot(&IAWTransportSink::OnReceive), 0);
  EXPECT_EQ(VirtualSlot(&IAWTransportSink::OnSend), 1);
  EXPECT_EQ(VirtualSlot(&IAWTransportSink::OnDisconnect), 2);
  EXPECT_EQ(VirtualSlot(&IAWTransport::OpenWithSink), 2);
  EXPECT_EQ(VirtualSlot(&IAWTransport::SendData), 3);
  EXPECT_EQ(VirtualSlot(&IAWTransport::Disconnect), 4);
  EXPECT_EQ(VirtualSlot(&IAWTransport::GetOption), 5);
  EXPECT_EQ(VirtualSlot(&IAWTransport::SetOption), 6);
}

}  // namespace
}  // namespace wface
