// PtcpConnection_test.cpp - the state machine on a simulated clock and a simulated path.
#include "PtcpConnection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "SimulatedPath.h"

namespace ptcp::test {
namespace {

std::string ReadAll(PtcpConnection& connection) {
  std::string all(connection.Readable(), '\0');
  all.resize(connection.Read(all.data(), all.size()));
  return all;
}

TEST(PtcpConnection, ConnectsInOneRoundTripAndCarriesBytesBothWays) {
  SimulatedPair pair(1, {});
  ASSERT_TRUE(pair.Establish());
  EXPECT_EQ(pair.now, kSecond + 3 * 10 * kMillisecond);  // the server knows half a trip later
  pair.client->Send("question", 8);
  pair.client->Flush(pair.now);
  ASSERT_TRUE(pair.StepUntil([&] { return pair.server->Readable() == 8; }));
  EXPECT_EQ(ReadAll(*pair.server), "question");
  pair.server->Send("answer", 6);
  pair.server->Flush(pair.now);
  ASSERT_TRUE(pair.StepUntil([&] { return pair.client->Readable() == 6; }));
  EXPECT_EQ(ReadAll(*pair.client), "answer");
}

TEST(PtcpConnection, WithoutAnIdOfItsOwnThereIsNone) {
  SimulatedPair pair(1, {});
  pair.clientHost.takesIds = false;
  EXPECT_FALSE(pair.Start());
  EXPECT_TRUE(pair.client->IsDead());
}

TEST(PtcpConnection, TheServerMaySpeakFirst) {
  SimulatedPair pair(2, {});
  ASSERT_TRUE(pair.Establish());
  pair.server->Send("hello", 5);
  pair.server->Flush(pair.now);
  ASSERT_TRUE(pair.StepUntil([&] { return pair.client->Readable() == 5; }));
  EXPECT_EQ(ReadAll(*pair.client), "hello");
}

TEST(PtcpConnection, TheEndComesAfterAllBytesAndIsAcknowledged) {
  SimulatedPair pair(3, {});
  ASSERT_TRUE(pair.Establish());
  pair.client->Send("last words", 10);
  pair.client->Finish();
  pair.client->Flush(pair.now);
  ASSERT_TRUE(pair.StepUntil([&] { return pair.server->HasPeerFinished(); }));
  EXPECT_EQ(ReadAll(*pair.server), "last words");
  ASSERT_TRUE(pair.StepUntil([&] { return pair.client->IsFinishAcknowledged(); }));
  EXPECT_TRUE(pair.client->IsAllAcknowledged());
}

TEST(PtcpConnection, ACloseInOrderAndOneGivenUpAreToldApart) {
  for (const bool inOrder : {true, false}) {
    SimulatedPair pair(4, {});
    ASSERT_TRUE(pair.Establish());
    pair.server->Close(inOrder, pair.now);
    EXPECT_TRUE(pair.server->IsDead());
    ASSERT_TRUE(pair.StepUntil([&] { return pair.client->IsDead(); }));
    EXPECT_EQ(pair.client->Reason(), inOrder ? 0 : ECONNRESET);
  }
}

TEST(PtcpConnection, APeerThatFallsSilentIsGivenUpAfterTenSeconds) {
  SimulatedPair pair(5, {});
  ASSERT_TRUE(pair.Establish());
  pair.StepUntil([] { return false; }, 5 * kSecond);
  const Time cut = pair.now;
  PathTraits dead;
  dead.drop = 1;
  pair.SetTraits(dead);
  ASSERT_TRUE(pair.StepUntil([&] { return pair.client->IsDead() && pair.server->IsDead(); }));
  EXPECT_EQ(pair.client->Reason(), ETIMEDOUT);
  EXPECT_EQ(pair.server->Reason(), ETIMEDOUT);
  EXPECT_GE(pair.now - cut, 7 * kSecond);
  EXPECT_LE(pair.now - cut, 14 * kSecond);
}

TEST(PtcpConnection, AnIdleConnectionStaysAliveAtTheCostOfFewPackets) {
  SimulatedPair pair(6, {});
  ASSERT_TRUE(pair.Establish());
  pair.StepUntil([] { return false; }, 10 * kSecond);  // path MTU probes are over by now
  int packets = 0;
  pair.watch = [&](Bytes, bool) { ++packets; };
  pair.StepUntil([] { return false; }, 60 * kSecond);
  EXPECT_FALSE(pair.client->IsDead());
  EXPECT_FALSE(pair.server->IsDead());
  EXPECT_GE(packets, 30);
  EXPECT_LE(packets, 100);
}

TEST(PtcpConnection, AFewBytesOfAnOutageArriveSoonAfterIt) {
  for (Time outage = 2 * kSecond; outage <= 9 * kSecond; outage += kSecond / 2) {
    PathTraits traits;
    traits.delay = 5 * kMillisecond;
    SimulatedPair pair(20, traits);
    ASSERT_TRUE(pair.Establish());
    pair.StepUntil([] { return false; }, kSecond);
    traits.drop = 1;
    pair.SetTraits(traits);
    pair.client->Send("hello", 5);
    pair.client->Flush(pair.now);
    pair.StepUntil([] { return false; }, outage);
    traits.drop = 0;
    pair.SetTraits(traits);
    EXPECT_TRUE(pair.StepUntil([&] { return pair.server->Readable() == 5; }, 2 * kSecond))
        << outage / kMillisecond;
  }
}

TEST(PtcpConnection, AHandshakeThatNobodyAnswersEndsAfterTenSeconds) {
  PathTraits dead;
  dead.drop = 1;
  SimulatedPair pair(7, dead);
  ASSERT_TRUE(pair.Start());
  ASSERT_TRUE(pair.StepUntil([&] { return pair.client->IsDead(); }));
  EXPECT_EQ(pair.client->Reason(), ETIMEDOUT);
  EXPECT_EQ(pair.now, 11 * kSecond);
}

TEST(PtcpConnection, AFirstPacketThatIsLostIsSentAgainSoon) {
  PathTraits dead;
  dead.drop = 1;
  SimulatedPair pair(21, dead);
  int packets = 0;
  pair.watch = [&](Bytes, bool) { ++packets; };
  ASSERT_TRUE(pair.Start());
  EXPECT_TRUE(pair.StepUntil([&] { return packets > 1; }, kSecond / 2));
}

TEST(PtcpConnection, TheServerSendsNoMoreThanThreeTimesWhatCameFromAnUnprovedAddress) {
  SimulatedPair pair(8, {});
  std::vector<Datagram> first;
  pair.watch = [&](Bytes datagram, bool toServer) {
    if (toServer) first.emplace_back(datagram.begin(), datagram.end());
  };
  ASSERT_TRUE(pair.Start());
  PathTraits dead;
  dead.drop = 1;
  pair.SetTraits(dead);
  ASSERT_EQ(first.size(), 1U);
  pair.ToServer(first[0]);
  ASSERT_NE(pair.server, nullptr);
  pair.client->Fail(EINTR);
  pair.StepUntil([&] { return pair.server->IsDead(); });
  EXPECT_TRUE(pair.server->IsDead());
  EXPECT_EQ(pair.server->Reason(), ETIMEDOUT);
  EXPECT_GT(pair.bytesToClient, 0U);
  EXPECT_LE(pair.bytesToClient, 3 * pair.bytesToServer);
}

TEST(PtcpConnection, AReceiverThatDoesNotReadStopsTheSenderAtTheWindow) {
  SimulatedPair pair(9, {});
  ASSERT_TRUE(pair.Establish());
  const std::string much(20 << 20, 'x');
  pair.client->Send(much.data(), much.size());
  pair.client->Flush(pair.now);
  pair.StepUntil([] { return false; }, 30 * kSecond);
  EXPECT_EQ(pair.server->Readable(), (8U << 20) - 1);  // and the byte that opens the stream
  std::size_t read = 0;
  ASSERT_TRUE(pair.StepUntil([&] {
    const std::size_t count = ReadAll(*pair.server).size();
    pair.server->Flush(pair.now);
    return (read += count) == much.size();
  }));
}

TEST(PtcpConnection, APathThatReordersThousandsOfPacketsCostsNoConnection) {
  PathTraits traits;
  traits.delay = 50 * kMillisecond;
  SimulatedPair pair(4, traits);
  ASSERT_TRUE(pair.Establish());
  traits.jitter = kMillisecond;  // in which nearly a whole window is sent
  pair.SetTraits(traits);
  constexpr std::size_t kBytes = 40'000'000;
  std::string text(kBytes, 'r');
  pair.client->Send(text.data(), text.size());
  pair.client->Flush(pair.now);
  std::size_t read = 0;
  EXPECT_TRUE(pair.StepUntil([&] {
    read += pair.server->Read(text.data(), text.size());
    pair.server->Flush(pair.now);
    return read == kBytes || pair.server->IsDead();
  }));
  EXPECT_EQ(read, kBytes) << pair.server->Reason();
}

// The packets of a connection that have grown as far as the path lets them through.
class GrownPackets : public ::testing::Test {
 protected:
  void SetUp() override { Begin(10 * kMillisecond); }
  void Begin(Time delay) {
    PathTraits traits;
    traits.delay = delay;
    pair.emplace(19, traits);
    ASSERT_TRUE(pair->Establish());
    pair->watch = [this](Bytes datagram, bool toServer) {
      if (toServer) largest = std::max(largest, datagram.size());
    };
    Send(1 << 20);
    ASSERT_TRUE(AllArrives());
    ASSERT_GT(SizeOfNext(), kNarrow);
  }
  void Send(std::size_t length) {
    const std::string text(length, 'x');
    pair->client->Send(text.data(), text.size());
    pair->client->Flush(pair->now);
  }
  // It is read as it comes.
  bool AllArrives() {
    return pair->StepUntil([&] {
      ReadAll(*pair->server);
      pair->server->Flush(pair->now);
      return pair->client->IsAllAcknowledged();
    });
  }
  std::size_t SizeOfNext() {
    largest = 0;
    Send(100000);
    EXPECT_TRUE(AllArrives());
    return largest;
  }

  static constexpr std::size_t kNarrow = 1300;
  std::optional<SimulatedPair> pair;
  std::size_t largest = 0;
};

TEST_F(GrownPackets, BecomeSmallWhenThePathHasBecomeNarrower) {
  Send(20 << 20);
  pair->StepUntil([] { return false; }, 100 * kMillisecond);  // while bytes are under way
  PathTraits narrow;
  narrow.largest = kNarrow;
  pair->SetTraits(narrow);
  EXPECT_TRUE(AllArrives());
  EXPECT_LE(SizeOfNext(), kNarrow);
}

TEST_F(GrownPackets, StayAsTheyAreWhenTheReceiverDoesNotRead) {
  Send(20 << 20);
  pair->StepUntil([] { return false; }, 30 * kSecond);
  EXPECT_FALSE(pair->client->IsAllAcknowledged());
  EXPECT_TRUE(AllArrives());
  EXPECT_GT(SizeOfNext(), kNarrow);
}

TEST_F(GrownPackets, StayAsTheyAreAfterAPauseOfBothSides) {
  for (int i = 0; i < 10; ++i) {
    pair->StepUntil([] { return false; }, 5500 * kMillisecond);
    pair->server->Send("crossing", 8);
    pair->server->Flush(pair->now);
    Send(100000);
    EXPECT_TRUE(AllArrives());
  }
  EXPECT_GT(SizeOfNext(), kNarrow);
}

TEST_F(GrownPackets, StayAsTheyAreOnAPathThatIsSlowToAnswer) {
  Begin(1300 * kMillisecond);
  EXPECT_GT(SizeOfNext(), kNarrow);
}

TEST(PtcpConnection, DatagramsOfAnyBytesChangeNothing) {
  SimulatedPair pair(10, {});
  ASSERT_TRUE(pair.Establish());
  for (int i = 0; i < 3000; ++i) {
    Datagram junk(pair.random() % 1500);
    for (auto& byte : junk) byte = static_cast<std::uint8_t>(pair.random());
    pair.client->Receive(junk, pair.now);
    pair.server->Receive(junk, pair.now);
  }
  pair.client->Send("still here", 10);
  pair.client->Flush(pair.now);
  ASSERT_TRUE(pair.StepUntil([&] { return pair.server->Readable() == 10; }));
}

TEST(PtcpConnection, ADamagedPacketIsDropped) {
  SimulatedPair pair(11, {});
  ASSERT_TRUE(pair.Establish());
  pair.StepUntil([] { return false; }, 2 * kSecond);
  PathTraits dead;
  dead.drop = 1;
  pair.SetTraits(dead);
  std::vector<Datagram> sent;
  pair.watch = [&](Bytes datagram, bool toServer) {
    if (toServer) sent.emplace_back(datagram.begin(), datagram.end());
  };
  pair.client->Send("data", 4);
  pair.client->Flush(pair.now);
  ASSERT_EQ(sent.size(), 1U);
  for (std::size_t bit = 0; bit < sent[0].size() * 8; ++bit) {
    Datagram damaged = sent[0];
    damaged[bit / 8] = static_cast<std::uint8_t>(damaged[bit / 8] ^ (1U << bit % 8));
    pair.server->Receive(damaged, pair.now);
    ASSERT_EQ(pair.server->Readable(), 0U) << "bit " << bit;
    ASSERT_FALSE(pair.server->IsDead()) << "bit " << bit;
  }
  pair.server->Receive(sent[0], pair.now);
  EXPECT_EQ(ReadAll(*pair.server), "data");
}

// On the wire is only the end of a packet number: after so many more, an old one looks new.
TEST(PtcpConnection, ALateDuplicateIsNotTakenForANewPacket) {
  SimulatedPair pair(12, {});
  ASSERT_TRUE(pair.Establish());
  std::vector<Datagram> old;
  pair.watch = [&](Bytes datagram, bool toServer) {
    if (toServer && old.size() < 200) old.emplace_back(datagram.begin(), datagram.end());
  };
  std::string sent;
  std::string received;
  for (int i = 0; i < 2000; ++i) {
    const std::string text = std::to_string(i) + ' ';
    sent += text;
    pair.client->Send(text.data(), text.size());
    pair.client->Flush(pair.now);
    pair.Step();
    if (!old.empty()) pair.server->Receive(old[static_cast<std::size_t>(i) % old.size()], pair.now);
    received += ReadAll(*pair.server);
  }
  pair.StepUntil([&] {
    received += ReadAll(*pair.server);
    return received.size() >= sent.size();
  });
  EXPECT_EQ(received, sent);
}

TEST(PtcpConnection, PacketsOfOneConnectionAreNothingToAnother) {
  SimulatedPair one(13, {});
  SimulatedPair other(14, {});
  ASSERT_TRUE(one.Establish());
  ASSERT_TRUE(other.Establish());
  std::vector<Datagram> strange;
  other.watch = [&](Bytes datagram, bool) {
    strange.emplace_back(datagram.begin(), datagram.end());
  };
  other.client->Send("strange", 7);
  other.server->Send("strange", 7);
  other.client->Flush(other.now);
  other.server->Flush(other.now);
  ASSERT_GE(strange.size(), 2U);
  for (const Datagram& datagram : strange) {
    one.server->Receive(datagram, one.now);
    one.client->Receive(datagram, one.now);
  }
  EXPECT_EQ(one.server->Readable(), 0U);
  EXPECT_EQ(one.client->Readable(), 0U);
  EXPECT_FALSE(one.server->IsDead());
  EXPECT_FALSE(one.client->IsDead());
}

// What a network error quotes must be a packet of ours: addresses alone are easily guessed.
TEST(PtcpConnection, KnowsItsOwnPacketsByTheIdsThatTheyBear) {
  SimulatedPair pair(17, {});
  SimulatedPair other(18, {});
  std::vector<Datagram> sent;
  pair.watch = [&](Bytes datagram, bool toServer) {
    if (toServer) sent.emplace_back(datagram.begin(), datagram.end());
  };
  ASSERT_TRUE(pair.Start());
  EXPECT_TRUE(pair.client->MayHaveSent(sent.at(0)));
  EXPECT_TRUE(pair.client->MayHaveSent(Bytes(sent[0]).first(22)));
  EXPECT_FALSE(pair.client->MayHaveSent(Bytes(sent[0]).first(21)));
  ASSERT_TRUE(pair.StepUntil([&] { return pair.client->IsEstablished(); }));
  ASSERT_TRUE(other.Establish());
  pair.StepUntil([] { return false; }, 2 * kSecond);
  sent.clear();
  pair.client->Send("data", 4);
  pair.client->Flush(pair.now);
  ASSERT_FALSE(sent.empty());
  EXPECT_TRUE(pair.client->MayHaveSent(Bytes(sent[0]).first(9)));
  EXPECT_FALSE(pair.client->MayHaveSent(Bytes(sent[0]).first(8)));
  EXPECT_FALSE(pair.server->MayHaveSent(sent[0]));
  EXPECT_FALSE(other.client->MayHaveSent(sent[0]));
  EXPECT_FALSE(pair.client->MayHaveSent({}));
}

TEST(PtcpConnection, AResetIsBelievedWhenItBearsTheTokenAndIsNotAnsweredItself) {
  SimulatedPair pair(15, {});
  ASSERT_TRUE(pair.Establish());
  pair.StepUntil([] { return false; }, 2 * kSecond);
  std::vector<Datagram> sent;
  pair.watch = [&](Bytes datagram, bool toServer) {
    if (toServer) sent.emplace_back(datagram.begin(), datagram.end());
  };
  const std::string text(100, 'x');
  pair.client->Send(text.data(), text.size());
  pair.client->Flush(pair.now);
  ASSERT_EQ(sent.size(), 1U);
  const auto id = DestinationOf(sent[0]);
  ASSERT_TRUE(id);
  const Tag wrong{};
  const auto random = [&](std::uint8_t* out, std::size_t length) {
    pair.serverHost.FillRandom(out, length);
  };
  pair.client->Receive(MakeReset(sent[0], wrong, random), pair.now);
  EXPECT_FALSE(pair.client->IsDead());
  const auto reset = MakeReset(sent[0], pair.serverHost.ResetToken(*id), random);
  EXPECT_LT(reset.size(), sent[0].size());
  pair.client->Receive(reset, pair.now);
  EXPECT_TRUE(pair.client->IsDead());
  EXPECT_EQ(pair.client->Reason(), ECONNRESET);
  EXPECT_TRUE(MakeReset(reset, wrong, random).empty());
}

TEST(PtcpConnection, OnlyAWholeFirstPacketOfOurVersionCanMakeAConnection) {
  SimulatedPair pair(16, {});
  Datagram first;
  pair.watch = [&](Bytes datagram, bool) { first.assign(datagram.begin(), datagram.end()); };
  ASSERT_TRUE(pair.Start());
  ASSERT_TRUE(ReadInitial(first));
  EXPECT_FALSE(ReadInitial({}));
  EXPECT_FALSE(ReadInitial(Bytes(first).first(1199)));
  Datagram otherVersion = first;
  otherVersion[4] = 7;
  EXPECT_FALSE(ReadInitial(otherVersion));
  Datagram reserved = first;
  std::fill_n(reserved.begin() + 1, 4, std::uint8_t{0x0a});
  EXPECT_FALSE(ReadInitial(reserved));
  Datagram damaged = first;
  damaged[1000] ^= 1;
  pair.ToServer(damaged);
  EXPECT_EQ(pair.server, nullptr);
}

}  // namespace
}  // namespace ptcp::test
