// PtcpConnection_proof_test.cpp - random transfers over random bad paths: every byte comes once and
// in order, or the connection ends with a reason.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "ProofScale.h"
#include "SimulatedPath.h"

namespace ptcp::test {
namespace {

char ByteAt(std::uint64_t offset, char way) {
  const std::uint64_t mixed = (offset + 1) * 0x9E3779B97F4A7C15ULL;
  return static_cast<char>((mixed >> 56) ^ static_cast<unsigned char>(way));
}

// One direction: what one side writes, bit by bit, and the other reads and checks.
struct Flow {
  std::uint64_t length;
  char way;
  std::uint64_t written = 0;
  std::uint64_t read = 0;
  bool wrong = false;

  void Write(PtcpConnection& connection, Generator& random) {
    if (written == length || connection.Unsent() > 100000) return;
    std::string piece(std::min<std::uint64_t>(length - written, 1 + random() % 20000), '\0');
    for (char& byte : piece) byte = ByteAt(written++, way);
    connection.Send(piece.data(), piece.size());
    if (written == length) connection.Finish();
  }
  void Read(PtcpConnection& connection, Generator& random) {
    std::string piece(1 + random() % 65535, '\0');
    piece.resize(connection.Read(piece.data(), piece.size()));
    for (const char byte : piece) wrong |= byte != ByteAt(read++, way);
  }
  bool IsWhole() const { return read == length; }
};

// A side that has read all and knows that its own bytes have arrived closes, as a transport does.
void CloseWhenDone(PtcpConnection& one, Time now) {
  const bool allRead = one.HasPeerFinished() && one.Readable() == 0;
  if (allRead && one.IsFinishAcknowledged()) one.Close(true, now);
}

PathTraits RandomPath(Generator& random) {
  const auto share = [&random](double most) {
    return std::uniform_real_distribution<double>(0, most)(random);
  };
  PathTraits traits;
  traits.delay = random() % 100 * kMillisecond;
  traits.jitter = random() % 3 == 0 ? random() % 50 * kMillisecond + 1 : 0;
  traits.drop = random() % 4 == 0 ? share(0.4) : share(0.05);
  traits.duplicate = share(0.05);
  traits.flip = share(0.02);
  return traits;
}

struct Outcome {
  bool whole = false;
  bool wrong = false;
  bool ended = false;  // both sides
  int clientReason = 0;
  int serverReason = 0;
};

Outcome Transfer(std::uint64_t seed, const PathTraits& traits) {
  SimulatedPair pair(seed, traits);
  Flow up{pair.random() % 300000 + 1, 1};
  Flow down{pair.random() % 300000 + 1, 2};
  if (!pair.Start()) return {};
  const Time end = pair.now + 600 * kSecond;
  while (pair.Step(end)) {
    for (PtcpConnection* one : {pair.client.get(), pair.server.get()}) {
      if (one == nullptr || !one->IsEstablished()) continue;
      const bool isClient = one == pair.client.get();
      (isClient ? up : down).Write(*one, pair.random);
      (isClient ? down : up).Read(*one, pair.random);
      CloseWhenDone(*one, pair.now);
      one->Flush(pair.now);
    }
  }
  // What has arrived before a close can be read after it.
  while (pair.client->Readable() != 0) down.Read(*pair.client, pair.random);
  while (pair.server != nullptr && pair.server->Readable() != 0) up.Read(*pair.server, pair.random);
  Outcome outcome;
  outcome.whole = up.IsWhole() && down.IsWhole();
  outcome.wrong = up.wrong || down.wrong || up.read > up.length || down.read > down.length;
  outcome.ended = pair.client->IsDead() && (pair.server == nullptr || pair.server->IsDead());
  outcome.clientReason = pair.client->Reason();
  if (pair.server != nullptr) outcome.serverReason = pair.server->Reason();
  return outcome;
}

TEST(PtcpConnectionProof, EveryByteComesOnceAndInOrderOrTheConnectionEndsWithAReason) {
  const int count = testsupport::ProofCount(10000);
  int whole = 0;
  for (int i = 0; i < count; ++i) {
    const auto seed = static_cast<std::uint64_t>(i) + 1000;
    Generator random(seed);
    const Outcome outcome = Transfer(seed, RandomPath(random));
    ASSERT_FALSE(outcome.wrong) << "seed " << seed;
    ASSERT_TRUE(outcome.ended) << "seed " << seed;
    // Whoever is told that all is well has got all.
    ASSERT_TRUE(outcome.whole || outcome.clientReason != 0 || outcome.serverReason != 0)
        << "seed " << seed;
    whole += outcome.whole ? 1 : 0;
  }
  // Giving up is for paths that lose every third packet, and even there the exception.
  EXPECT_GE(whole, count * 9 / 10);
}

TEST(PtcpConnectionProof, APathThatLosesFewPacketsCostsNoConnection) {
  const int count = testsupport::ProofCount(1000);
  for (int i = 0; i < count; ++i) {
    PathTraits traits;
    traits.delay = 20 * kMillisecond;
    traits.jitter = i % 2 == 0 ? 0 : 5 * kMillisecond;
    traits.drop = i % 3 == 0 ? 0.05 : 0.01;
    traits.duplicate = 0.005;
    const Outcome outcome = Transfer(static_cast<std::uint64_t>(i) + 1, traits);
    ASSERT_TRUE(outcome.whole && !outcome.wrong) << "number " << i;
  }
}

}  // namespace
}  // namespace ptcp::test
