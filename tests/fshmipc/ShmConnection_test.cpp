// ShmConnection_test.cpp - a connection whose peer is played by the test: what it puts into the
// shared memory and onto the socket, and when it sleeps.
#include "ShmConnection.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "OpenDescriptors.h"
#include "ProcessorTime.h"
#include "RawPeer.h"
#include "keelbase/internal/TimerQueue.h"

namespace fshmipc {
namespace {

using namespace zarn::test;
using keelbase::CAWThreadManager;

constexpr std::uint64_t kMaxPosition = std::numeric_limits<std::uint64_t>::max();

keelbase::CAWThread& Network() {
  return *CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK);
}

// Runs the loop as a program does, so that it sleeps, until `condition` holds; false after `limit`.
template <class Condition>
bool RunUntil(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  bool held = false;
  keelbase::internal::Timer look(Network().GetLoop());
  keelbase::internal::Timer end(Network().GetLoop());
  look.Start(std::chrono::milliseconds(1), 0, [&] {
    if (!condition()) return;
    held = true;
    Network().Stop();
  });
  end.Start(limit, 1, [&] { Network().Stop(); });
  EXPECT_EQ(Network().Run(), AW_OK);
  return held;
}

// Until nobody polls any more: the loop sleeps and has asked to be woken.
void RunUntilAsleep(RawPeer& peer) {
  EXPECT_TRUE(
      RunUntil([&] { return peer.In().readerSleeps == 0 && peer.Out().readerSleeps != 0; }));
}

void AddLingerData(RawPeer& peer, const std::string& text) {
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(peer.end.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block), AW_OK);
}

// What this process uses while the loop has nothing to do.
double SecondsUsedWhileIdle() {
  const double before = zarn::test::ProcessorSeconds();
  keelbase::internal::Timer end(Network().GetLoop());
  end.Start(std::chrono::milliseconds(500), 1, [] { Network().Stop(); });
  EXPECT_EQ(Network().Run(), AW_OK);
  return zarn::test::ProcessorSeconds() - before;
}

int Processors() {
  cpu_set_t allowed;
  EXPECT_EQ(::sched_getaffinity(0, sizeof allowed, &allowed), 0);
  return CPU_COUNT(&allowed);
}

// Keeps this thread on the processor that it is on.
class StayHere {
 public:
  StayHere() {
    EXPECT_EQ(::sched_getaffinity(0, sizeof before_, &before_), 0);
    cpu_set_t here;
    CPU_ZERO(&here);
    CPU_SET(::sched_getcpu(), &here);
    EXPECT_EQ(::sched_setaffinity(0, sizeof here, &here), 0);
  }
  ~StayHere() { EXPECT_EQ(::sched_setaffinity(0, sizeof before_, &before_), 0); }
  StayHere(const StayHere&) = delete;
  StayHere& operator=(const StayHere&) = delete;

 private:
  cpu_set_t before_{};
};

// --- a system that fails ---

struct EndSink final : keelbase::internal::StreamSocketSink {
  void OnBytes(CAWMessageBlock&) override { ADD_FAILURE(); }
  void OnRoom() override { ADD_FAILURE(); }
  void OnEnd(long why) override { reason = why; }
  long reason = -1;
};

TEST(ShmConnection, ThatCannotBeWatchedIsOpenedAndThenEndsWithTheReason) {
  ShmSegment segment;
  keelbase::internal::FileDescriptor memory;
  ASSERT_EQ(segment.Create(kMinShmRing, memory), 0);
  const keelbase::CAWAutoPtr<ShmConnection> connection(new ShmConnection(
      Network().GetLoop(), {}, std::move(segment), ShmConnection::Side::connector));
  EndSink sink;
  EXPECT_EQ(connection->Open(&sink), AW_OK);
  EXPECT_EQ(sink.reason, -1);
  RunReady();
  EXPECT_EQ(sink.reason, EBADF);
  connection->Disconnect();
}

// --- positions that make no sense ---

TEST(ShmConnection, ReaderOfNonsenseDisconnects) {
  for (const std::uint64_t lie : {std::uint64_t{kMinShmRing + 1}, kMaxPosition, kMaxPosition / 2}) {
    RawPeer peer;
    peer.end.Open();
    peer.Out().head = lie;
    EXPECT_TRUE(Await([&] { return peer.end.sink.ended; }));
    EXPECT_EQ(peer.end.sink.reason, EPROTO);
    EXPECT_EQ(peer.end.sink.received, "");
    EXPECT_EQ(peer.end.Send("x"), AW_ERROR_FAILURE);
  }
}

TEST(ShmConnection, NonsenseIsFoundByASleepingConnectionWhenItIsWoken) {
  RawPeer peer;
  peer.end.Open();
  RunUntilAsleep(peer);
  peer.Out().head = kMaxPosition;
  peer.Wake();
  EXPECT_TRUE(RunUntil([&] { return peer.end.sink.ended; }));
  EXPECT_EQ(peer.end.sink.reason, EPROTO);
}

TEST(ShmConnection, WriterToNonsenseDisconnects) {
  for (const std::uint64_t lie :
       {std::uint64_t{kMinShmRing + 1}, kMaxPosition - kMinShmRing, kMaxPosition / 2}) {
    RawPeer peer;
    peer.end.Open();
    peer.In().tail = lie;
    EXPECT_EQ(peer.end.Send(Pattern(70000)), AW_ERROR_PARTIAL_DATA);  // the room of before
    EXPECT_FALSE(peer.end.sink.ended);
    EXPECT_TRUE(RunUntil([&] { return peer.end.sink.ended; }));
    EXPECT_EQ(peer.end.sink.reason, EPROTO);
    EXPECT_EQ(peer.end.Send("x"), AW_ERROR_FAILURE);
  }
}

TEST(ShmConnection, NonsenseFromBeforeTheOpenEndsItAfterwards) {
  RawPeer peer;
  peer.Out().head = kMaxPosition;
  peer.In().tail = kMaxPosition / 2;
  peer.end.Send(Pattern(70000));
  EXPECT_EQ(peer.end.transport->OpenWithSink(&peer.end.sink), AW_OK);
  EXPECT_FALSE(peer.end.sink.ended);
  EXPECT_TRUE(Await([&] { return peer.end.sink.ended; }));
  EXPECT_EQ(peer.end.sink.reason, EPROTO);
}

TEST(ShmConnection, NonsenseWhileSomeoneWaitsForRoomEndsIt) {
  RawPeer peer;
  peer.end.Open();
  peer.end.Fill();
  RunUntil([&] { return peer.In().writerWaits != 0; });
  peer.In().tail = kMaxPosition / 2;
  peer.Wake();
  EXPECT_TRUE(RunUntil([&] { return peer.end.sink.ended; }));
  EXPECT_EQ(peer.end.sink.reason, EPROTO);
  EXPECT_EQ(peer.end.sink.sends, 0);
}

TEST(ShmConnection, NonsenseWhileItLingersEndsTheLinger) {
  RawPeer peer;
  peer.end.Open();
  peer.end.Fill();
  AddLingerData(peer, Pattern(100000));
  peer.In().tail = kMaxPosition / 2;
  peer.end.transport->Disconnect(0);
  peer.Wake();
  EXPECT_TRUE(RunUntil(
      [&] {
        peer.socket.Receive();
        return peer.socket.ended;
      },
      std::chrono::milliseconds(1500)));
}

TEST(ShmConnection, PeerThatDiesLeavingNonsenseIsANonsense) {
  RawPeer peer;
  peer.end.Open();
  peer.end.Set(keelbase::AW_OPT_STOP_READING, true);
  peer.Out().head = kMaxPosition;
  peer.socket.Close();
  EXPECT_TRUE(Await([&] { return peer.end.sink.ended; }));
  EXPECT_EQ(peer.end.sink.reason, EPROTO);
}

TEST(ShmConnection, ClaimedBytesThatNobodyWroteAreReadFromTheRing) {
  RawPeer peer;
  peer.end.Open();
  peer.Out().head = kMinShmRing;
  EXPECT_TRUE(Await([&] { return peer.end.sink.received.size() == kMinShmRing; }));
  EXPECT_FALSE(peer.end.sink.ended);
}

TEST(ShmConnection, BytesAreTheOwnersOnceTheyAreDelivered) {
  RawPeer peer;
  RingWriter writer(peer.segment.ConnectorRing());
  writer.Write("mine", 4);
  writer.Publish();
  std::string seen;
  peer.end.sink.onReceive = [&](IAWShmIPCTransport*) {
    peer.segment.ConnectorRing().bytes[0] = 'X';
    seen = peer.end.sink.received;
  };
  peer.end.Open();
  EXPECT_TRUE(Await([&] { return !seen.empty(); }));
  EXPECT_EQ(seen, "mine");
}

TEST(ShmConnection, PeerThatEmptiesThePagesOfItsMemoryDoesNoHarm) {
  RawPeer peer;
  peer.end.Open();
  peer.end.Send("x");
  RunReady();
  char* const begin = reinterpret_cast<char*>(&peer.Out());
  EXPECT_EQ(::madvise(begin, 4096 + 2 * kMinShmRing, MADV_REMOVE), 0);
  peer.end.Send(Pattern(1000));
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_EQ(peer.In().head, 1001U);
}

// --- ends ---

TEST(ShmConnection, EndWithoutAWordIsAResetEvenBehindBytes) {
  RawPeer peer;
  peer.end.Open();
  RingWriter writer(peer.segment.ConnectorRing());
  writer.Write("last", 4);
  writer.Publish();
  peer.socket.Close();
  EXPECT_TRUE(Await([&] { return peer.end.sink.ended; }));
  EXPECT_EQ(peer.end.sink.received, "last");
  EXPECT_EQ(peer.end.sink.reason, ECONNRESET);
}

TEST(ShmConnection, PeerThatOnlyShutsItsSocketDownHasEnded) {
  RawPeer peer;
  peer.end.Open();
  peer.socket.ShutdownWrite();
  EXPECT_TRUE(Await([&] { return peer.end.sink.ended; }));
}

TEST(ShmConnection, PeerThatWritesOnAfterItsEndIsReadForOneRingOnly) {
  RawPeer peer;
  RingWriter writer(peer.segment.ConnectorRing());
  const std::string text = Pattern(kMinShmRing);
  writer.Write(text.data(), text.size());
  writer.Publish();
  peer.end.Set(keelbase::AW_OPT_READ_SIZE, std::uint32_t{1000});
  peer.end.sink.onReceive = [&](IAWShmIPCTransport*) {
    writer.Write(text.data(), text.size());
    writer.Publish();
  };
  peer.end.Set(keelbase::AW_OPT_STOP_READING, true);
  peer.end.Open();
  peer.socket.ShutdownWrite();
  EXPECT_TRUE(Await([&] { return peer.end.sink.ended; }));
  EXPECT_GE(peer.end.sink.received.size(), text.size());
  EXPECT_LT(peer.end.sink.received.size(), text.size() + 1000);
}

// --- the end of the process ---

TEST(ShmConnection, WhatItLingersForIsWrittenAtTheEndOfTheProcess) {
  RawPeer peer;
  peer.end.Open();
  const std::string more = Pattern(100000);
  const std::string expected = peer.end.Fill() + more;
  AddLingerData(peer, more);
  peer.end.transport->Disconnect(0);
  std::string received;
  std::thread taker([&] {
    RingReader reader(peer.segment.AcceptorRing());
    while (!reader.HasEnded() || reader.Available() != 0) {
      const std::size_t available = reader.Available();
      received.resize(received.size() + available);
      reader.Read(received.data() + received.size() - available, available);
      if (reader.ShallTellRoom(0)) peer.Wake();
    }
  });
  Network().GetLoop().FinishLingers();
  taker.join();
  EXPECT_TRUE(received == expected);
}

TEST(ShmConnection, PeerThatIsGoneIsNotWaitedForAtTheEndOfTheProcess) {
  RawPeer peer;
  peer.end.Open();
  peer.end.Fill();
  AddLingerData(peer, Pattern(100000));
  peer.end.Set(keelbase::AW_OPT_LINGER, std::uint32_t{3600 * 1000});
  peer.end.transport->Disconnect(0);
  peer.socket.Close();
  Network().GetLoop().FinishLingers();
  EXPECT_TRUE(RingReader(peer.segment.AcceptorRing()).HasEnded());
}

TEST(ShmConnection, PeerThatReadsNothingHoldsUpTheEndOfTheProcessForItsLingerOnly) {
  RawPeer peer;
  peer.end.Open();
  peer.end.Fill();
  AddLingerData(peer, Pattern(100000));
  peer.end.Set(keelbase::AW_OPT_LINGER, std::uint32_t{50});
  peer.end.transport->Disconnect(0);
  Network().GetLoop().FinishLingers();
  EXPECT_TRUE(RingReader(peer.segment.AcceptorRing()).HasEnded());
}

// --- sleeping and waking ---

TEST(ShmConnection, SleepingConnectionIsWokenByOneByte) {
  RawPeer peer;
  peer.end.Open();
  RingWriter writer(peer.segment.ConnectorRing());
  for (int i = 0; i < 300; ++i) {
    RunUntilAsleep(peer);
    writer.Write("x", 1);
    ASSERT_TRUE(writer.Publish());
    peer.Wake();
    ASSERT_TRUE(RunUntil([&] { return peer.end.sink.receives == i + 1; })) << i;
  }
}

TEST(ShmConnection, PeerThatSleepsIsWokenByOneByte) {
  RawPeer peer;
  peer.end.Open();
  RingReader reader(peer.segment.AcceptorRing());
  EXPECT_TRUE(reader.Sleep());
  peer.end.Send("a");
  peer.end.Send("b");
  RunReady();
  EXPECT_EQ(peer.socket.Receive().size(), 1U);
  EXPECT_EQ(reader.Available(), 2U);
  EXPECT_EQ(peer.end.Counters().systemCallsSent, 1U);
}

TEST(ShmConnection, FirstBytesOfATurnAreShownAtOnceAndTheOthersWhenItEndsOrMuchIsTogether) {
  RawPeer peer;
  peer.end.Open();
  RingReader reader(peer.segment.AcceptorRing());
  peer.end.Send("a");
  EXPECT_EQ(reader.Available(), 1U);
  peer.end.Send("b");
  EXPECT_EQ(reader.Available(), 1U);
  RunReady();
  EXPECT_EQ(reader.Available(), 2U);
  peer.end.Send("c");
  peer.end.Send("d");
  EXPECT_EQ(reader.Available(), 3U);
  peer.end.Send(std::string(16 * 1024, 'x'));
  EXPECT_EQ(reader.Available(), 4U + 16 * 1024);
}

TEST(ShmConnection, LongSendIsShownPieceByPieceAndThePeerIsToldThatMoreFollows) {
  if (Processors() < 2) GTEST_SKIP() << "nobody can look meanwhile";
  RawPeer peer;
  peer.end.Open();
  RingReader reader(peer.segment.AcceptorRing());
  std::atomic<bool> stop = false;
  std::atomic<bool> saidSo = false;
  std::atomic<bool> pieceSeen = false;
  std::thread looker([&] {
    while (!stop) {
      if (reader.IsWriting()) saidSo = true;
      if (peer.In().head % 65000 != 0) pieceSeen = true;
    }
  });
  const std::string message = Pattern(65000);
  EXPECT_TRUE(Await([&] {
    peer.end.Send(message);
    peer.In().tail = peer.In().head.load();
    return saidSo && pieceSeen;
  }));
  stop = true;
  looker.join();
  EXPECT_TRUE(saidSo);
  EXPECT_FALSE(reader.IsWriting());
}

TEST(ShmConnection, PeerThatSaysThatMoreFollowsIsNotWaitedForLong) {
  RawPeer peer;
  peer.end.Open();
  peer.Out().writing = 1;
  peer.Out().head = 16 * 1024;
  RunReady();
  EXPECT_EQ(peer.end.sink.received.size(), 16U * 1024);
  EXPECT_EQ(peer.Out().tail, 16U * 1024);
  EXPECT_FALSE(peer.end.sink.ended);
}

TEST(ShmConnection, PeerThatSleepsIsWokenForMuchThoughNothingOfItCanBeCopied) {
  RawPeer peer;
  peer.end.Open();
  peer.end.Fill();
  RunReady();
  peer.In().readerSleeps = 1;
  peer.end.Send(std::string(16 * 1024 - 1, 'x'));
  EXPECT_EQ(peer.end.Counters().systemCallsSent, 0U);
  peer.end.Send(std::string(16 * 1024, 'x'));
  EXPECT_EQ(peer.end.Counters().systemCallsSent, 1U);
  EXPECT_EQ(peer.socket.Receive().size(), 1U);
}

// Whether a peer that sleeps, on our processor or on another one, is woken while we still copy.
bool IsWokenEarly(RawPeer& peer, bool here) {
  std::atomic<bool> asleep = false;
  std::atomic<bool> looks = false;
  std::uint64_t shown = 0;
  std::thread sleeper([&] {
    asleep.wait(false);
    looks = true;
    while (peer.In().readerSleeps != 0) {
    }
    shown = peer.In().head;
  });
  const StayHere stay;
  peer.In().readerSleeps = here ? Here() : Here() + 1;
  asleep = true;
  asleep.notify_one();
  while (!looks) std::this_thread::yield();
  EXPECT_EQ(peer.end.Send(Pattern(65000)), AW_OK);
  sleeper.join();
  peer.In().tail = peer.In().head.load();
  return shown != peer.In().head;
}

TEST(ShmConnection, PeerThatSleepsOnAnotherProcessorIsWokenBeforeMuchIsCopied) {
  if (Processors() < 2) GTEST_SKIP() << "there is only one";
  RawPeer peer;
  peer.end.Open();
  EXPECT_TRUE(Await([&] { return IsWokenEarly(peer, false); }));
}

TEST(ShmConnection, PeerThatSleepsOnOurProcessorIsWokenWhenAllIsCopied) {
  RawPeer peer;
  peer.end.Open();
  for (int i = 0; i < 100; ++i) ASSERT_FALSE(IsWokenEarly(peer, true));
}

// More often than a socket holds wake-ups.
TEST(ShmConnection, WriterThatWaitsForRoomIsWokenEachTime) {
  RawPeer peer;
  peer.end.Open();
  RingReader reader(peer.segment.AcceptorRing());
  std::string bytes(kMinShmRing, '\0');
  for (int i = 0; i < 300; ++i) {
    peer.end.Fill();
    ASSERT_TRUE(RunUntil([&] { return peer.In().writerWaits != 0; })) << i;
    reader.Read(bytes.data(), reader.Available());
    ASSERT_TRUE(reader.ShallTellRoom(0));
    peer.Wake();
    ASSERT_TRUE(RunUntil([&] { return peer.end.sink.sends == i + 1; })) << i;
  }
}

TEST(ShmConnection, WriterThatBeginsToWaitWhileItsBytesAreHandledIsWoken) {
  RawPeer peer;
  peer.end.Open();
  peer.end.sink.onReceive = [&peer](auto*) { peer.Out().writerWaits = 1; };
  RingWriter writer(peer.segment.ConnectorRing());
  writer.Write("x", 1);
  writer.Publish();
  EXPECT_TRUE(Await([&] { return peer.end.sink.received == "x"; }));
  EXPECT_EQ(peer.Out().writerWaits, 0U);
  EXPECT_EQ(peer.socket.Receive().size(), 1U);
}

TEST(ShmConnection, WriterThatHasFilledTheRingAgainMeanwhileIsNotWokenForTheRoomThatItHad) {
  RawPeer peer;
  peer.end.Open();
  RingWriter writer(peer.segment.ConnectorRing());
  const std::string bytes(kMinShmRing, 'x');
  bool waits = false;
  peer.end.sink.onReceive = [&](auto*) {
    if (waits) return;
    writer.Write(bytes.data(), bytes.size());
    writer.Publish();
    waits = writer.WaitForRoom();
    EXPECT_TRUE(waits);
    EXPECT_EQ(peer.socket.Receive(), "");
    peer.end.transport->SetOption(keelbase::AW_OPT_STOP_READING, &waits);
  };
  writer.Write("x", 1);
  writer.Publish();
  EXPECT_TRUE(Await([&] { return waits; }));
  EXPECT_EQ(peer.Out().writerWaits, 1U);
  EXPECT_EQ(peer.socket.Receive(), "");
}

TEST(ShmConnection, WakeUpsWithoutReasonCostNothingLater) {
  RawPeer peer;
  peer.end.Open();
  while (peer.socket.Send("w") == 1) {
  }
  RunUntilAsleep(peer);
  EXPECT_LT(SecondsUsedWhileIdle(), 0.1);
  peer.socket.Close();
  EXPECT_TRUE(RunUntil([&] { return peer.end.sink.ended; }));
}

TEST(ShmConnection, DescriptorsThatComeWithAWakeUpAreRefusedOrClosed) {
  RawPeer peer;
  peer.end.Open();
  const auto before = CountOpenDescriptors();
  for (int i = 0; i < 200; ++i) {
    const bool passed = SendWithDescriptors(peer.socket.Get(), "w", 1, {peer.socket.Get()});
    EXPECT_NE(passed, DescriptorsCanBeRefused());
    RunReady();
  }
  EXPECT_EQ(CountOpenDescriptors(), before);
}

// --- what a peer that does nothing costs: as one that was stopped ---

TEST(ShmConnection, PeerThatHasStoppedCostsNoProcessorTime) {
  for (const std::uint32_t spin : {0U, 100U}) {
    Network().SetSpin(spin);
    RawPeer peer;
    peer.end.Open();
    peer.end.Fill();
    EXPECT_LT(SecondsUsedWhileIdle(), 0.1) << "with a full ring";
    peer.In().tail = kMinShmRing / 2 - 1;  // not enough room yet
    peer.Wake();
    EXPECT_LT(SecondsUsedWhileIdle(), 0.1) << "with some room";
    peer.end.Set(keelbase::AW_OPT_STOP_READING, true);
    peer.Out().head = kMinShmRing;
    peer.Wake();
    EXPECT_LT(SecondsUsedWhileIdle(), 0.1) << "with bytes that are not read";
  }
  Network().SetSpin(0);
}

void Scribble(RawPeer& peer, std::mt19937_64& random) {
  const auto value = random() % 40 == 0 ? random() : peer.In().head + random() % 1000 - 500;
  switch (random() % 8) {
    case 0:
      peer.Out().head = peer.Out().head + random() % 70000;
      break;
    case 1:
      peer.In().tail = value;
      break;
    case 2:
      peer.Out().readerSleeps = static_cast<std::uint32_t>(random());
      break;
    case 3:
      peer.In().readerSleeps = static_cast<std::uint32_t>(random());
      break;
    case 4:
      peer.In().writerWaits = static_cast<std::uint32_t>(random());
      break;
    case 5:
      peer.Out().tail = random();
      break;
    case 6:
      peer.In().head = random();
      break;
    case 7:
      peer.Out().writing = static_cast<std::uint32_t>(random() % 2);
      break;
  }
}

// Each way one byte goes, from where the library's end is: only that end knows by now.
void ExpectItWorks(RawPeer& peer) {
  const auto counters = peer.end.Counters();
  const auto in = counters.bytesSent & (kMinShmRing - 1);
  const auto out = counters.bytesReceived & (kMinShmRing - 1);
  peer.In().tail = counters.bytesSent;
  peer.In().readerSleeps = 1;
  EXPECT_EQ(peer.end.Send("s"), AW_OK);
  EXPECT_EQ(peer.In().head, counters.bytesSent + 1);
  EXPECT_EQ(peer.segment.AcceptorRing().bytes[in], 's');
  EXPECT_NE(peer.socket.Receive(), "") << "not woken";
  peer.segment.ConnectorRing().bytes[out] = 'r';
  peer.Out().head = counters.bytesReceived + 1;
  peer.Wake();
  Turn();
  EXPECT_EQ(peer.end.sink.received, "r");
}

TEST(ShmConnection, ScribblesEndItOrLeaveItWorking) {
  std::mt19937_64 random(11);
  int ended = 0;
  constexpr int kRounds = 60;
  for (int round = 0; round < kRounds; ++round) {
    RawPeer peer;
    peer.end.Open();
    for (auto steps = random() % 40; steps != 0 && !peer.end.sink.ended; --steps) {
      Scribble(peer, random);
      peer.Wake();
      peer.end.Send(Pattern(random() % 80000));
      Network().TEST_RunReady();
      peer.socket.Receive();
    }
    Turn();
    peer.socket.Receive();
    peer.end.sink.received.clear();
    if (peer.end.sink.ended) {
      ++ended;
      EXPECT_EQ(peer.end.sink.reason, EPROTO);
    } else {
      ExpectItWorks(peer);
    }
    peer.end.transport->Disconnect(0);
  }
  EXPECT_GT(ended, kRounds / 10);
  EXPECT_LT(ended, kRounds - kRounds / 10);
}

}  // namespace
}  // namespace fshmipc
