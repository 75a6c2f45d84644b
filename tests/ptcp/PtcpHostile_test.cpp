// PtcpHostile_test.cpp - a peer that has the keys and sends what a side of ours never would. It is
// refused with a reason, and told so.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "SealedPackets.h"
#include "SimulatedPath.h"

namespace ptcp::test {
namespace {

// An established pair, of which the client turns bad: its packets are made by hand.
class PtcpHostileClient : public ::testing::Test {
 protected:
  void SetUp() override {
    pair.watch = [this](Bytes datagram, bool toServer) {
      if (toServer) id = *DestinationOf(datagram);
    };
    ASSERT_TRUE(pair.Establish());
    pair.StepUntil([] { return false; }, 2 * kSecond);
  }
  void Send(const Datagram& frames, std::uint8_t phase = 0) {
    pair.ToServer(SealShort(id, ++number, frames, pair.client->TEST_Handshake().SendKey(), phase));
  }
  void ExpectRefused() {
    pair.server->Flush(pair.now);
    EXPECT_TRUE(pair.server->IsDead());
    EXPECT_EQ(pair.server->Reason(), EPROTO);
    EXPECT_TRUE(pair.StepUntil([&] { return pair.client->IsDead(); }));
    EXPECT_EQ(pair.client->Reason(), ECONNRESET);
  }

  SimulatedPair pair{50, {}};
  ConnectionId id;
  std::uint32_t number = 1000;
};

TEST_F(PtcpHostileClient, WhatWeSealIsWhatItSeals) {
  Send({0x0a, 0, 3, 1, 'h', 'i'});  // a STREAM frame; the byte that opens it came before
  ASSERT_FALSE(pair.server->IsDead());
  std::string text(pair.server->Readable(), '\0');
  pair.server->Read(text.data(), text.size());
  EXPECT_EQ(text, "hi");
}

TEST_F(PtcpHostileClient, SecondStreamIsRefused) {
  Send({0x0a, 4, 1, 1});
  ExpectRefused();
}

TEST_F(PtcpHostileClient, ResetOfTheStreamIsRefused) {
  Send({0x0a, 0, 1, 1});
  Send({0x04, 0, 0, 1});
  ExpectRefused();
}

TEST_F(PtcpHostileClient, WishThatWeStopSendingIsRefusedWhenWeSend) {
  Send({0x0a, 0, 1, 1});
  Send({0x05, 0, 0});
  pair.server->Send("x", 1);
  ExpectRefused();
}

TEST_F(PtcpHostileClient, MoreThanTheWindowIsRefused) {
  Send({0x0e, 0, 0x80, 0x80, 0, 0, 1, 'x'});  // at 8 MiB
  ExpectRefused();
}

TEST_F(PtcpHostileClient, WhatWouldLeaveTooManyGapsIsAsGoodAsLost) {
  constexpr std::size_t kBytes = 4000;
  const auto sendAt = [&](std::size_t offset) {
    Send({0x0e, 0, static_cast<std::uint8_t>(0x40 | offset >> 8),
          static_cast<std::uint8_t>(offset & 255), 1, 1});
  };
  for (std::size_t offset = 1; offset < kBytes; offset += 2) sendAt(offset);
  ASSERT_FALSE(pair.server->IsDead());
  for (std::size_t offset = 0; offset < kBytes; ++offset) sendAt(offset);
  EXPECT_FALSE(pair.server->IsDead());
  EXPECT_EQ(pair.server->Readable(), kBytes - 1);  // without the one that opens the stream
}

TEST_F(PtcpHostileClient, AcknowledgementOfWhatWasNeverSentIsRefused) {
  Send({0x02, 0x52, 0x34, 0, 0, 0});
  ExpectRefused();
}

TEST_F(PtcpHostileClient, ShakingHandsAgainIsRefused) {
  Send(CryptoFrame(Datagram{1, 2, 3}));
  ExpectRefused();
}

// Takes the server's packets itself. It acknowledges them when the test says so, but for those that
// bear what lies at `hole`, and has granted the server more than it can ever send.
class PtcpHostileReceiver : public PtcpHostileClient {
 protected:
  static constexpr std::size_t kQueue = std::size_t{4} << 20;
  static constexpr std::uint8_t kPhase = 0x04;

  void SetUp() override {
    PtcpHostileClient::SetUp();
    pair.serverHost.output = [this](Bytes packet) { OnPacket(packet); };
    Send({0x0a, 0, 1, 1});                                            // opens the stream
    Send({0x10, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});     // MAX_DATA
    Send({0x11, 0, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});  // MAX_STREAM_DATA
  }
  // As SendData does: a full queue takes no more.
  void Offer() {
    static const std::string piece(65536, 'd');
    while (offered < toOffer && pair.server->Unsent() < kQueue) {
      if (offered == hole) {
        pair.server->Send("HH", 2);
        offered += 2;
      }
      pair.server->Send(piece.data(), piece.size());
      offered += piece.size();
    }
  }
  void Round() {
    Offer();
    pair.now += kMillisecond / 2;
    pair.server->OnTimer(pair.now);
    pair.server->Flush(pair.now);
    Acknowledge();
  }
  void Acknowledge(std::uint8_t phase = 0) {
    for (const std::uint64_t packet : std::exchange(toAcknowledge, {})) {
      Datagram frame = {0x02};
      for (int shift = 56; shift >= 0; shift -= 8)
        frame.push_back(static_cast<std::uint8_t>((shift == 56 ? 0xc0U : 0U) | packet >> shift));
      Append(frame, Datagram{0, 0, 0});
      Send(frame, phase);
    }
  }
  // Packets carry the end of their numbers, which only grow.
  void OnPacket(Bytes packet) {
    phaseOfServer = packet[0] & kPhase;
    const std::size_t begin = 1 + kLocalIdSize;
    const std::size_t length = (packet[0] & 3U) + 1;
    std::uint64_t packetNumber = 0;
    for (const std::uint8_t byte : packet.subspan(begin, length))
      packetNumber = packetNumber << 8 | byte;
    const std::uint64_t step = std::uint64_t{1} << 8 * length;
    packetNumber |= largest & ~(step - 1);
    if (packetNumber <= largest) packetNumber += step;
    largest = packetNumber;
    const std::string_view text(reinterpret_cast<const char*>(packet.data()), packet.size());
    const bool isHole = text.find("dH") != text.npos || text.find("Hd") != text.npos;
    if (!isHole || !leavesHole) toAcknowledge.push_back(packetNumber);
  }

  std::size_t offered = 0;
  std::size_t toOffer = 0;
  std::size_t hole = 0;
  bool leavesHole = true;
  std::uint64_t largest = 0;
  std::uint8_t phaseOfServer = 0;
  std::vector<std::uint64_t> toAcknowledge;
};

TEST_F(PtcpHostileReceiver, HoleInItsAcknowledgementsDoesNotMakeUsKeepAllThatIsSent) {
  constexpr std::size_t kMaxKept = std::size_t{16} << 20;
  hole = 65536;
  toOffer = 65536 * 512;
  const auto& server = *pair.server;
  const auto isFull = [&] { return server.Unacknowledged() - server.Unsent() >= kMaxKept; };
  for (int rounds = 0; rounds < 30000 && !isFull(); ++rounds) Round();
  for (int rounds = 0; rounds < 1000; ++rounds) Round();
  ASSERT_FALSE(server.IsDead());
  EXPECT_GE(server.Unsent(), kQueue);
  EXPECT_LE(server.Unacknowledged(), kMaxKept + kQueue + 3 * 65536);
  EXPECT_LT(offered, toOffer);
  leavesHole = false;
  for (int rounds = 0; rounds < 30000 && !server.IsAllAcknowledged(); ++rounds) Round();
  EXPECT_FALSE(server.IsDead());
  EXPECT_GE(offered, toOffer);
  EXPECT_TRUE(server.IsAllAcknowledged());
}

// The one that opens the stream is at 0.
Datagram StreamByte(std::uint8_t offset) { return {0x0e, 0, offset, 1, 'x'}; }

// A change is heard some time after the last was acknowledged.
TEST_F(PtcpHostileReceiver, ChangesOfTheKeyPhaseDoNoHarm) {
  for (std::uint8_t i = 0; i < 20; ++i) {
    const std::uint8_t phase = i % 2 == 0 ? kPhase : 0;
    Send(StreamByte(static_cast<std::uint8_t>(i + 1)), phase);
    EXPECT_EQ(pair.server->Readable(), i + 1U);
    pair.server->Send("y", 1);
    pair.server->Flush(pair.now);
    EXPECT_EQ(phaseOfServer, phase);
    Acknowledge(phase);
    EXPECT_TRUE(pair.server->IsAllAcknowledged());
    pair.StepUntil([] { return false; }, 5 * kSecond);
  }
  EXPECT_FALSE(pair.server->IsDead());
}

// The server follows the first, and drops what bears the other phase until that is acknowledged.
TEST_F(PtcpHostileReceiver, ChangesOfTheKeyPhaseThatItDoesNotConfirmDoNoHarm) {
  for (std::uint8_t i = 0; i < 20; ++i) {
    Send(StreamByte(1), i % 2 == 0 ? kPhase : 0);
    pair.server->Flush(pair.now);
    EXPECT_EQ(phaseOfServer, kPhase);
    pair.StepUntil([] { return false; }, kSecond);
  }
  EXPECT_FALSE(pair.server->IsDead());
  Send(StreamByte(2), kPhase);
  EXPECT_EQ(pair.server->Readable(), 2U);
  pair.server->Send("y", 1);
  pair.server->Flush(pair.now);
  Acknowledge(kPhase);
  EXPECT_TRUE(pair.server->IsAllAcknowledged());
}

// Once this left a timer that was due for ever.
TEST_F(PtcpHostileClient, WishToRetireAllIdsAtOnceCostsNoEndlessTurns) {
  Datagram frame = {0x18, 9, 9, 8};
  frame.resize(frame.size() + 8 + 16, 7);
  Send(frame);
  int turns = 0;
  pair.StepUntil([&] { return ++turns > 100000 || pair.server->IsDead(); }, 5 * kSecond);
  EXPECT_LE(turns, 10000);
}

TEST_F(PtcpHostileClient, IdThatItGivesUpIsNoNameOfTheConnectionAnyMore) {
  const auto before = pair.serverHost.ids;
  Send({0x19, 1});
  pair.StepUntil([] { return false; }, 5 * kSecond);
  EXPECT_FALSE(pair.server->IsDead());
  const auto& after = pair.serverHost.ids;
  EXPECT_FALSE(std::includes(after.begin(), after.end(), before.begin(), before.end()));
}

// A server that is met with a first message of our making.
class PtcpHostileHello : public ::testing::Test {
 protected:
  void SetUp() override {
    pair.watch = [this](Bytes datagram, bool toServer) {
      if (toServer) return;
      ++answers;
      last.assign(datagram.begin(), datagram.end());
    };
    pair.client->Connect(pair.now);  // its first packet is never sent on
    Datagram first;
    pair.clientHost.output = [&first](Bytes sent) { first.assign(sent.begin(), sent.end()); };
    pair.client->Flush(pair.now);
    initial = *ReadInitial(first);
  }
  void Send(Bytes hello) {
    pair.ToServer(SealLong(LongType::initial, initial.destination, initial.source, ++number,
                           CryptoFrame(hello),
                           pair.client->TEST_Handshake().TEST_InitialSendKey()));
  }

  SimulatedPair pair{60, {}};
  InitialHeader initial;
  std::uint32_t number = 0;
  int answers = 0;
  Datagram last;
};

Datagram Hello(std::size_t params) {
  Datagram hello = {'z', 'p', 't', 1};
  hello.resize(hello.size() + 16);
  hello.push_back(static_cast<std::uint8_t>(params >> 8));
  hello.push_back(static_cast<std::uint8_t>(params & 255));
  return hello;
}

TEST_F(PtcpHostileHello, AnotherMagicIsRefusedAndTheClientIsTold) {
  Send(Datagram{'Z', 'p', 't', 1});
  EXPECT_EQ(pair.server, nullptr);  // was made and is dead
  EXPECT_EQ(answers, 1);
  EXPECT_LE(pair.bytesToClient, 3 * pair.bytesToServer);
}

TEST_F(PtcpHostileHello, ABeginningIsNotRefusedYet) {
  Send(Datagram{'z', 'p'});
  ASSERT_NE(pair.server, nullptr);
  EXPECT_FALSE(pair.server->IsDead());
}

TEST_F(PtcpHostileHello, ParametersThatMakeNoSenseAreRefused) {
  Datagram hello = Hello(3);
  Append(hello, Datagram{0x01, 0x05, 0x00});  // an id whose length is beyond the end
  Send(hello);
  EXPECT_EQ(pair.server, nullptr);
  EXPECT_EQ(answers, 1);
}

TEST_F(PtcpHostileHello, MoreBehindTheParametersIsRefused) {
  Datagram hello = Hello(0);
  hello.push_back(0);
  Send(hello);
  EXPECT_EQ(pair.server, nullptr);
}

TEST_F(PtcpHostileHello, EndlessHelloIsRefused) {
  Datagram hello = Hello(5000);
  hello.resize(1100);
  Send(hello);
  EXPECT_EQ(pair.server, nullptr);
}

}  // namespace
}  // namespace ptcp::test
