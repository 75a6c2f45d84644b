// TcpTransport_test.cpp - what is particular to TCP connections: what they are set to, and resets.
// What all transports do alike is tested in tests/transports.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

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

TEST(TcpTransport, NobodyKnowsWhoThePeerIs) {
  Connection c;
  keelbase::CAWPeerCredentials who;
  EXPECT_EQ(c.transport->GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, &who), AW_ERROR_FAILURE);
}

TEST(TcpTransport, PeerThatHasClosedAndIsSentToIsToldAsABrokenPipe) {
  Connection c;
  c.Open();
  c.peer.Send("all of it");
  c.peer.Close();
  const std::string large(64000, 'x');  // is written at once
  EXPECT_EQ(c.Send(large), AW_OK);
  EXPECT_EQ(c.Send(large), AWResult{EPIPE});
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.received, "all of it");
  EXPECT_EQ(c.sink.reason, EPIPE);
}

TEST(TcpTransport, ResetIsNoOrderlyEnd) {
  Connection c;
  c.Open();
  c.peer.Reset();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_EQ(c.sink.reason, ECONNRESET);
}

TEST(TcpTransport, VirtualFunctionsOfTransportAndSinkKeepTheirSlots) {
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
