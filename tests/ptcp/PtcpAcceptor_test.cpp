// PtcpAcceptor_test.cpp - listening: where, for how long, and who must prove an address first.
// Real loopback sockets; clients that stop half-way are played by the test.
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "ClockAndRandom.h"
#include "DescriptorShortage.h"
#include "RealPtcp.h"
#include "SimulatedPath.h"
#include "UdpSocket.h"

namespace ptcp::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;

constexpr std::uint8_t kLongHeader = 0x80;
constexpr std::uint8_t kTypeBits = 0x30;
constexpr std::uint8_t kRetry = 0x30;

// A client that sends when the test says so.
class SlowClient {
 public:
  SlowClient(std::uint64_t seed, const CAWInetAddr& acceptor, const char* host = "127.0.0.1")
      : path_{acceptor, {}}, random_(seed), host_(random_), connection(host_) {
    const CAWInetAddr local(host, 0);
    EXPECT_EQ(socket_.Open(&local, &acceptor), 0);
    host_.output = [this](Bytes datagram) {
      last_.assign(datagram.begin(), datagram.end());
      SendAgain();
    };
    EXPECT_TRUE(connection.Connect(Now()));
  }
  void Send() { connection.Flush(Now()); }
  void SendAgain() { SendAsItIs(last_); }  // the last datagram
  void SendAsItIs(const Datagram& datagram) { EXPECT_EQ(socket_.Write(path_, datagram, 0), 0); }
  std::size_t LastSize() const { return last_.size(); }
  // What the acceptor has sent until now; the connection is given it.
  std::vector<Datagram> Receive() {
    std::vector<Datagram> all;
    std::array<char, 65536> room;
    UdpSocket::Received one;
    while (socket_.Read(room, one) == 0) {
      for (Bytes rest = one.data; !rest.empty();) {
        const std::size_t length =
            one.segment == 0 ? rest.size() : std::min(one.segment, rest.size());
        all.emplace_back(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length));
        connection.Receive(rest.first(length), Now());
        rest = rest.subspan(length);
      }
    }
    return all;
  }
  // Is sent away, and comes back with the token.
  void ProveAddress();
  // The first that comes.
  Datagram Await() {
    std::vector<Datagram> all;
    EXPECT_TRUE(WaitFor([&] { return !(all = Receive()).empty(); }));
    return all.empty() ? Datagram() : all.front();
  }

 private:
  const Path path_;
  UdpSocket socket_;
  Generator random_;
  SimulatedHost host_;
  Datagram last_;

 public:
  PtcpConnection connection;
};

bool IsRetry(const Datagram& datagram) {
  return !datagram.empty() && (datagram[0] & kLongHeader) != 0 &&
         (datagram[0] & kTypeBits) == kRetry;
}

void SlowClient::ProveAddress() {
  Send();
  EXPECT_TRUE(IsRetry(Await()));
  Send();
}

class PtcpAcceptorTest : public RealPtcp {
 protected:
  // One newcomer is half open from here on, so that others must prove their addresses.
  void ListenWithFullBacklog() {
    ASSERT_EQ(acceptor->StartListen(&accepted, Loopback(), 1), AW_OK);
    address = acceptor->GetLocalAddr();
    unproved = std::make_unique<SlowClient>(100, address);
    unproved->Send();
    EXPECT_FALSE(IsRetry(unproved->Await()));
  }
  void Finish(SlowClient& one) {
    const int before = accepted.indications;
    one.Send();
    EXPECT_TRUE(WaitFor([&] { return accepted.indications > before; }));
  }
  CAWAutoPtr<IAWPseudoTCPAcceptor> MakeAcceptor() {
    CAWAutoPtr<IAWPseudoTCPAcceptor> made;
    EXPECT_EQ(CAWPseudoTCPManager::Instance()->CreateAcceptor(made), AW_OK);
    return made;
  }

  std::unique_ptr<SlowClient> unproved;
};

TEST_F(PtcpAcceptorTest, PortZeroIsAFreeOneAndIsTold) {
  EXPECT_EQ(acceptor->GetLocalAddr(), CAWInetAddr());
  Listen();
  EXPECT_EQ(address.GetIpDisplayName(), "127.0.0.1");
  EXPECT_NE(address.GetPort(), 0);
  acceptor->StopListen();
  EXPECT_EQ(acceptor->GetLocalAddr(), address);
}

TEST_F(PtcpAcceptorTest, EachFailureHasItsReason) {
  Listen();
  const auto other = MakeAcceptor();
  EXPECT_EQ(other->StartListen(nullptr, Loopback(), 0), AW_ERROR_FAILURE);
  EXPECT_EQ(other->StartListen(&accepted, address, 0), EADDRINUSE);
  EXPECT_EQ(other->StartListen(&accepted, {"192.0.2.1", 0}, 0), EADDRNOTAVAIL);
  {
    const zarn::test::DescriptorShortage shortage;
    EXPECT_EQ(other->StartListen(&accepted, Loopback(), 0), EMFILE);
  }
  EXPECT_EQ(other->StartListen(&accepted, Loopback(), 0), AW_OK);
  EXPECT_EQ(other->StartListen(&accepted, Loopback(), 0), AW_ERROR_FAILURE);
}

TEST_F(PtcpAcceptorTest, WhoComesWhenTheBacklogIsFullProvesItsAddressAndIsAccepted) {
  ASSERT_EQ(acceptor->StartListen(&accepted, Loopback(), 1), AW_OK);
  address = acceptor->GetLocalAddr();
  SlowClient halfOpen(1, address);
  halfOpen.Send();
  EXPECT_FALSE(IsRetry(halfOpen.Await()));
  SlowClient late(2, address);
  late.Send();
  EXPECT_TRUE(IsRetry(late.Await()));
  late.Send();
  EXPECT_TRUE(WaitFor([&] {
    late.Receive();
    late.Send();
    return accepted.indications == 1;
  }));
  EXPECT_TRUE(late.connection.IsEstablished());
}

TEST_F(PtcpAcceptorTest, OneAddressCannotTakeAllPlacesByProvingItself) {
  ListenWithFullBacklog();
  SlowClient first(10, address);
  first.ProveAddress();
  EXPECT_FALSE(first.Await().empty());
  SlowClient second(11, address);
  second.ProveAddress();
  SlowClient elsewhere(12, address, "127.0.0.2");
  elsewhere.ProveAddress();
  EXPECT_FALSE(elsewhere.Await().empty());
  EXPECT_TRUE(second.Receive().empty());  // although it came before
  Finish(first);
  second.SendAgain();
  EXPECT_FALSE(second.Await().empty());
  Finish(second);
}

TEST_F(PtcpAcceptorTest, PlacesForProvedAddressesAreBoundedInAll) {
  ListenWithFullBacklog();
  std::vector<std::unique_ptr<SlowClient>> holders;
  for (const char* host : {"127.0.0.2", "127.0.0.3", "127.0.0.4"}) {
    holders.push_back(std::make_unique<SlowClient>(20 + holders.size(), address, host));
    holders.back()->ProveAddress();
    EXPECT_FALSE(holders.back()->Await().empty());
  }
  SlowClient late(30, address, "127.0.0.5");
  late.ProveAddress();
  SlowClient stranger(31, address, "127.0.0.6");
  stranger.Send();
  EXPECT_TRUE(IsRetry(stranger.Await()));
  EXPECT_TRUE(late.Receive().empty());  // although it came before
  Finish(*holders.front());
  late.SendAgain();
  EXPECT_FALSE(late.Await().empty());
  Finish(late);
}

TEST_F(PtcpAcceptorTest, PacketsOfStrangersThatAreNoFirstOnesAreNotAnswered) {
  Listen();
  SlowClient slow(3, address);
  UdpSocket stranger;
  ASSERT_EQ(stranger.Open(nullptr, &address), 0);
  for (const std::string text : {"", "x", "\xff", "\xc0 a long header without a version"}) {
    const Bytes bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    EXPECT_EQ(stranger.Write({address, {}}, bytes, 0), 0);
  }
  slow.Send();
  EXPECT_FALSE(slow.Await().empty());
  std::array<char, 2048> room;
  UdpSocket::Received none;
  EXPECT_EQ(stranger.Read(room, none), EAGAIN);
}

TEST_F(PtcpAcceptorTest, PacketOfAConnectionThatIsGoneIsAnsweredWithAReset) {
  Listen();
  UdpSocket stranger;
  ASSERT_EQ(stranger.Open(nullptr, &address), 0);
  const std::vector<std::uint8_t> lost(60, 0x40);
  EXPECT_EQ(stranger.Write({address, {}}, lost, 0), 0);
  std::array<char, 2048> room;
  UdpSocket::Received answer;
  ASSERT_TRUE(WaitFor([&] { return stranger.Read(room, answer) == 0; }));
  EXPECT_LT(answer.data.size(), lost.size());
  EXPECT_EQ(answer.data[0] & 0xC0, 0x40);
}

TEST_F(PtcpAcceptorTest, AResetIsNotAnswered) {
  Listen();
  UdpSocket stranger;
  ASSERT_EQ(stranger.Open(nullptr, &address), 0);
  const std::vector<std::uint8_t> lost(60, 0x40);
  EXPECT_EQ(stranger.Write({address, {}}, lost, 0), 0);
  std::array<char, 2048> room;
  UdpSocket::Received answer;
  ASSERT_TRUE(WaitFor([&] { return stranger.Read(room, answer) == 0; }));
  EXPECT_EQ(stranger.Write({address, {}}, answer.data, 0), 0);
  EXPECT_EQ(stranger.Write({address, {}}, lost, 0), 0);
  ASSERT_TRUE(WaitFor([&] { return stranger.Read(room, answer) == 0; }));
  EXPECT_EQ(answer.data.size(), kResetSize);
  EXPECT_EQ(stranger.Read(room, answer), EAGAIN);
}

TEST_F(PtcpAcceptorTest, WhatMayBeAResetLetsAHalfOpenConnectionSendNoMore) {
  zarn::test::HandClock clock;
  Listen();
  SlowClient halfOpen(5, address);
  halfOpen.Send();
  std::size_t came = halfOpen.Await().size();
  for (int i = 0; i < 1000; ++i) halfOpen.SendAsItIs(Datagram(kResetSize, 0x40));
  for (int tenths = 0; tenths < 120; ++tenths) {
    clock.Advance(std::chrono::milliseconds(100));
    for (const Datagram& one : halfOpen.Receive()) came += one.size();
  }
  EXPECT_LE(came, 3 * halfOpen.LastSize());
}

TEST_F(PtcpAcceptorTest, WhoIsHalfOpenAtTheStopIsNotAcceptedAnyMore) {
  Listen();
  SlowClient halfOpen(4, address);
  halfOpen.Send();
  EXPECT_FALSE(halfOpen.Await().empty());
  EXPECT_EQ(acceptor->StopListen(), AW_OK);
  EXPECT_EQ(acceptor->StopListen(), AW_OK);
  halfOpen.Send();
  zarn::test::RunReady();
  EXPECT_EQ(accepted.indications, 0);
}

TEST_F(PtcpAcceptorTest, WhoLeavesDuringTheHandshakeMakesRoomForTheNext) {
  ASSERT_EQ(acceptor->StartListen(&accepted, Loopback(), 1), AW_OK);
  address = acceptor->GetLocalAddr();
  SlowClient hasty(5, address);
  hasty.Send();
  hasty.Await();
  hasty.connection.Close(false, Now());
  zarn::test::RunReady();
  SlowClient next(6, address);
  next.Send();
  EXPECT_FALSE(IsRetry(next.Await()));
  next.Send();
  EXPECT_TRUE(WaitFor([&] { return accepted.indications == 1; }));
}

TEST_F(PtcpAcceptorTest, ConnectionsGoOnAfterTheStopAndTheAddressCanBeListenedAtAgain) {
  ListenAndConnect();
  Open();
  acceptor->StopListen();
  ConnectRecorder others;
  const auto second = MakeAcceptor();
  ASSERT_EQ(second->StartListen(&others, address, 0), AW_OK);
  EXPECT_EQ(second->GetLocalAddr(), address);
  EXPECT_EQ(SendText(*client, "still here"), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return serverSink.received == "still here"; }));
  ASSERT_EQ(connector->AsyncConnect(&connected, address, nullptr, nullptr), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return others.indications == 1 && connected.indications == 1; }));
  EXPECT_EQ(accepted.indications, 1);
}

TEST_F(PtcpAcceptorTest, WhoComesAfterTheStopToAPortThatConnectionsStillUseIsRefused) {
  ListenAndConnect();
  acceptor->StopListen();
  ASSERT_EQ(connector->AsyncConnect(&connected, address, nullptr, nullptr), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return connected.indications != 0; }));
  EXPECT_EQ(connected.reason, ECONNREFUSED);
}

TEST_F(PtcpAcceptorTest, ARefusalIsShortAndAnswersFirstPacketsOnly) {
  ListenAndConnect();
  acceptor->StopListen();
  UdpSocket stranger;
  ASSERT_EQ(stranger.Open(nullptr, &address), 0);
  const ConnectionId some(std::array<std::uint8_t, 8>{1, 2, 3});
  const Datagram later = SealLong(LongType::handshake, some, some, 0, Datagram(1200), PacketKey());
  EXPECT_EQ(stranger.Write({address, {}}, later, 0), 0);
  SlowClient late(8, address);
  late.Send();
  EXPECT_LT(late.Await().size(), 100U);
  EXPECT_EQ(late.connection.Reason(), ECONNREFUSED);
  std::array<char, 2048> room;
  UdpSocket::Received none;
  EXPECT_EQ(stranger.Read(room, none), EAGAIN);
}

TEST_F(PtcpAcceptorTest, MayBeStoppedAndLetGoInsideItsIndication) {
  Listen();
  accepted.onIndication = [&] {
    acceptor->StopListen();
    acceptor = nullptr;
  };
  ASSERT_EQ(connector->AsyncConnect(&connected, address, nullptr, nullptr), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return accepted.indications == 1 && connected.indications == 1; }));
  EXPECT_EQ(connected.reason, 0);
}

TEST_F(PtcpAcceptorTest, ConnectionThatNobodyTookIsClosed) {
  Listen();
  accepted.keep = false;
  ASSERT_EQ(connector->AsyncConnect(&connected, address, nullptr, nullptr), AW_OK);
  ASSERT_TRUE(WaitFor([&] { return accepted.indications == 1 && connected.indications == 1; }));
  client = connected.transports.back();
  EXPECT_EQ(client->OpenWithSink(&clientSink), AW_OK);
  EXPECT_TRUE(WaitFor([&] { return clientSink.ended; }));
}

TEST_F(PtcpAcceptorTest, ListenerAtEveryAddressTellsWhichOneTheClientHasAsked) {
  ASSERT_EQ(acceptor->StartListen(&accepted, {"0.0.0.0", 0}, 0), AW_OK);
  address = CAWInetAddr("127.0.0.2", acceptor->GetLocalAddr().GetPort());
  Connect();
  CAWInetAddr local;
  EXPECT_EQ(server->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &local), AW_OK);
  EXPECT_EQ(local, address);
}

}  // namespace
}  // namespace ptcp::test
