// PtcpHostile_test.cpp - a peer that has the keys and sends what a side of ours never would. It is
// refused with a reason, and told so.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>

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
  void Send(const Datagram& frames) {
    pair.ToServer(SealShort(id, ++number, frames, pair.client->TEST_Handshake().SendKey()));
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

TEST_F(PtcpHostileClient, AcknowledgementOfWhatWasNeverSentIsRefused) {
  Send({0x02, 0x52, 0x34, 0, 0, 0});
  ExpectRefused();
}

TEST_F(PtcpHostileClient, ShakingHandsAgainIsRefused) {
  Send(CryptoFrame(Datagram{1, 2, 3}));
  ExpectRefused();
}

TEST_F(PtcpHostileClient, ChangesOfTheKeyPhaseDoNoHarm) {
  for (std::uint8_t i = 0; i < 20; ++i) {
    const std::uint8_t phase = i % 2 == 0 ? 0x04 : 0;
    pair.ToServer(SealShort(id, ++number, Datagram{0x01, 0, 0, 0},
                            pair.client->TEST_Handshake().SendKey(), phase));
    pair.server->Flush(pair.now);
    pair.StepUntil([] { return false; }, kSecond);
  }
  SUCCEED();
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
