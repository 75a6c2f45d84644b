// ShmRing_test.cpp - both ends of a ring, also when the other end lies about its position.
#include "ShmRing.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "RingMemory.h"
#include "keelbase/CAWHash.h"

namespace fshmipc {
namespace {

constexpr std::size_t kSize = 16;
constexpr std::uint64_t kMaxNumber = std::numeric_limits<std::uint64_t>::max();

// A ring and both of its ends.
struct RingPair {
  explicit RingPair(std::size_t size = kSize)
      : memory(size), writer(memory.Get()), reader(memory.Get()) {}

  std::size_t Write(const std::string& text) { return writer.Write(text.data(), text.size()); }
  std::string Read(std::size_t most = kMaxNumber) {
    std::string text(std::min(most, reader.Available()), '\0');
    reader.Read(text.data(), text.size());
    return text;
  }

  RingMemory memory;
  RingWriter writer;
  RingReader reader;
};

// --- bytes ---

TEST(ShmRing, WhatIsPublishedIsRead) {
  RingPair ring;
  EXPECT_EQ(ring.reader.Available(), 0U);
  EXPECT_EQ(ring.Write("hello"), 5U);
  EXPECT_EQ(ring.writer.Unpublished(), 5U);
  EXPECT_EQ(ring.reader.Available(), 0U);
  ring.writer.Publish();
  EXPECT_EQ(ring.writer.Unpublished(), 0U);
  EXPECT_EQ(ring.Read(), "hello");
  EXPECT_EQ(ring.reader.Available(), 0U);
}

TEST(ShmRing, TakesAsMuchAsThereIsRoomFor) {
  RingPair ring;
  EXPECT_EQ(ring.Write("0123456789abcdefXYZ"), kSize);
  EXPECT_EQ(ring.Write("more"), 0U);
  EXPECT_EQ(ring.Write(""), 0U);
  ring.writer.Publish();
  EXPECT_EQ(ring.Read(3), "012");
  EXPECT_EQ(ring.Write("more"), 3U);
  ring.writer.Publish();
  EXPECT_EQ(ring.Read(), "3456789abcdefmor");
  EXPECT_FALSE(ring.writer.IsBroken());
  EXPECT_FALSE(ring.reader.IsBroken());
}

TEST(ShmRing, EveryLengthGoesRoundEveryPlace) {
  for (std::size_t at = 0; at < kSize; ++at) {
    for (std::size_t length = 0; length <= kSize; ++length) {
      RingPair ring;
      ring.Write(std::string(at, '-'));
      ring.writer.Publish();
      EXPECT_EQ(ring.Read().size(), at);
      const std::string text = std::string("0123456789abcdef").substr(0, length);
      EXPECT_EQ(ring.Write(text), length);
      ring.writer.Publish();
      EXPECT_EQ(ring.Read(), text) << length << " bytes at " << at;
      EXPECT_TRUE(ring.memory.IsWhole());
    }
  }
}

// Whichever of the ways this processor takes.
TEST(ShmRing, EachWayOfCopyingCopiesAllAndNothingElse) {
  std::string from(20000, '\0');
  for (std::size_t i = 0; i < from.size(); ++i) from[i] = static_cast<char>(1 + i % 251);
  for (const auto copy : {CopyByLines, CopyShared}) {
    for (const std::size_t length : {0, 1, 63, 64, 65, 127, 128, 4095, 4096, 4097, 16384, 19999}) {
      std::string to(from.size() + 1, '\0');
      copy(to.data() + 1, from.data(), length);
      EXPECT_TRUE(to.substr(1, length) == from.substr(0, length)) << length;
      EXPECT_EQ(to[0], '\0');
      EXPECT_EQ(to.find_first_not_of('\0', 1 + length), std::string::npos) << length;
    }
  }
}

TEST(ShmRing, PositionsCountFromTheBeginning) {
  RingPair ring;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(ring.Write("1234567"), 7U);
    ring.writer.Publish();
    EXPECT_EQ(ring.Read(), "1234567");
  }
  EXPECT_EQ(ring.memory.Control().head, 7000U);
  EXPECT_EQ(ring.memory.Control().tail, 7000U);
}

TEST(ShmRing, EndIsSeenByTheReader) {
  RingPair ring;
  EXPECT_FALSE(ring.reader.HasEnded());
  ring.Write("last");
  ring.writer.Publish();
  ring.writer.End();
  EXPECT_TRUE(ring.reader.HasEnded());
  EXPECT_EQ(ring.Read(), "last");
}

// --- a lying reader ---

TEST(ShmRing, ReaderThatClaimsTheImpossibleBreaksTheWriter) {
  for (const std::uint64_t lie : {std::uint64_t{11}, std::uint64_t{10 + kSize}, kMaxNumber - 6,
                                  kMaxNumber / 2, kMaxNumber - kSize, std::uint64_t{1} << 32}) {
    RingPair ring;
    ring.Write("0123456789");
    ring.writer.Publish();
    ring.memory.Control().tail = lie;
    EXPECT_EQ(ring.Write("0123456789"), 6U) << lie;  // the room of before
    EXPECT_TRUE(ring.writer.IsBroken()) << lie;
    EXPECT_TRUE(ring.memory.IsWhole());
  }
}

TEST(ShmRing, ReaderThatFallsBackMoreThanTheRingBreaksTheWriter) {
  RingPair ring;
  for (int i = 0; i < 10; ++i) {
    ring.Write("0123456789");
    ring.writer.Publish();
    ring.Read();
  }
  ring.memory.Control().tail = 100 - kSize - 1;
  EXPECT_FALSE(ring.writer.HasRoom() && !ring.writer.IsBroken());
  EXPECT_TRUE(ring.writer.IsBroken());
}

TEST(ShmRing, WriterStaysBroken) {
  RingPair ring;
  ring.Write("0123456789abcdef");
  ring.writer.Publish();
  ring.memory.Control().tail = kMaxNumber;
  EXPECT_EQ(ring.Write("x"), 0U);
  ring.memory.Control().tail = 0;
  ring.Write("x");
  EXPECT_TRUE(ring.writer.IsBroken());
}

TEST(ShmRing, ReaderThatFallsBackWithinTheRingOnlyLosesRoom) {
  RingPair ring;
  ring.Write("0123456789");
  ring.writer.Publish();
  ring.Read();
  EXPECT_TRUE(ring.writer.HasRoom());
  ring.memory.Control().tail = 0;
  EXPECT_FALSE(ring.writer.HasRoom());
  EXPECT_FALSE(ring.writer.IsBroken());
  EXPECT_EQ(ring.Write("0123456789"), 6U);
  EXPECT_TRUE(ring.memory.IsWhole());
}

// --- a lying writer ---

TEST(ShmRing, WriterThatClaimsTheImpossibleBreaksTheReader) {
  for (const std::uint64_t lie : {std::uint64_t{10 + kSize + 1}, std::uint64_t{9}, std::uint64_t{0},
                                  kMaxNumber, kMaxNumber / 2, std::uint64_t{1} << 32}) {
    RingPair ring;
    ring.Write("0123456789");
    ring.writer.Publish();
    EXPECT_EQ(ring.Read(), "0123456789");
    ring.memory.Control().head = lie;
    EXPECT_EQ(ring.reader.Available(), 0U) << lie;
    EXPECT_TRUE(ring.reader.IsBroken()) << lie;
    EXPECT_FALSE(ring.reader.Sleep());  // there is something: to be told
    ring.memory.Control().head = 12;
    EXPECT_EQ(ring.reader.Available(), 0U);
    EXPECT_TRUE(ring.reader.IsBroken());
  }
}

TEST(ShmRing, WriterThatClaimsAFullRingIsRead) {
  RingPair ring;
  ring.memory.Control().head = kSize;
  EXPECT_EQ(ring.Read().size(), kSize);
  EXPECT_FALSE(ring.reader.IsBroken());
}

TEST(ShmRing, ScribblesNeverReachOutside) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 300; ++round) {
    RingPair ring(64);
    RingControl& control = ring.memory.Control();
    for (int step = 0; step < 100; ++step) {
      const auto near = [&](std::uint64_t position) { return position + random() % 200 - 100; };
      if (random() % 3 == 0) control.head = random() % 9 == 0 ? random() : near(control.head);
      if (random() % 3 == 0) control.tail = random() % 9 == 0 ? random() : near(control.tail);
      control.readerSleeps = static_cast<std::uint32_t>(random());
      control.writerWaits = static_cast<std::uint32_t>(random());
      EXPECT_LE(ring.Write(std::string(random() % 100, 'w')), 64U);
      ring.writer.Publish();
      ring.writer.WaitForRoom();
      EXPECT_LE(ring.Read(random() % 100).size(), 64U);
      ring.reader.ShallTellRoom(ring.reader.Available());
      ring.reader.Sleep();
    }
    EXPECT_TRUE(ring.memory.IsWhole());
  }
}

// --- sleeping and waking ---

TEST(ShmRing, SleepingReaderIsWokenOnce) {
  RingPair ring;
  ring.Write("a");
  EXPECT_FALSE(ring.writer.Publish());
  ring.Read();
  EXPECT_TRUE(ring.reader.Sleep());
  ring.Write("b");
  EXPECT_TRUE(ring.writer.Publish());
  ring.Write("c");
  EXPECT_FALSE(ring.writer.Publish());
}

TEST(ShmRing, ReaderThatWasWokenBeforeTheWriteAndSleepsAgainIsWokenAgain) {
  RingPair ring;
  EXPECT_FALSE(ring.writer.ShallWakeReader());
  EXPECT_TRUE(ring.reader.Sleep());
  EXPECT_TRUE(ring.writer.ShallWakeReader());
  EXPECT_FALSE(ring.writer.ShallWakeReader());
  ring.Write("x");
  EXPECT_TRUE(ring.reader.Sleep());
  EXPECT_TRUE(ring.writer.Publish());
}

TEST(ShmRing, WriterKnowsThatTheReaderSleepsOnItsOwnProcessor) {
  RingPair ring;
  EXPECT_FALSE(ring.writer.ReaderSleepsHere());
  ring.memory.Control().readerSleeps = Here() + 1000;
  EXPECT_FALSE(ring.writer.ReaderSleepsHere());
  // Between the two calls we may be moved to another one, but not each time.
  bool here = false;
  for (int i = 0; i < 1000 && !here; ++i) {
    EXPECT_TRUE(ring.reader.Sleep());
    here = ring.writer.ReaderSleepsHere();
  }
  EXPECT_TRUE(here);
}

TEST(ShmRing, ReaderThatFindsSomethingDoesNotSleep) {
  RingPair ring;
  ring.Write("a");
  ring.writer.Publish();
  EXPECT_FALSE(ring.reader.Sleep());
  ring.Write("b");
  EXPECT_FALSE(ring.writer.Publish());
}

TEST(ShmRing, AwakeReaderIsNotWoken) {
  RingPair ring;
  EXPECT_TRUE(ring.reader.Sleep());
  ring.reader.Awake();
  ring.Write("a");
  EXPECT_FALSE(ring.writer.Publish());
}

// The two meet in every order of their single steps: the flag, the position, and the looks at them.
TEST(ShmRing, ReaderThatSaysSleepBeforeThePublishIsWokenOrFindsTheBytes) {
  {
    RingPair ring;
    ring.memory.Control().readerSleeps = 1;  // it said so and has not looked again yet
    ring.Write("a");
    EXPECT_TRUE(ring.writer.Publish());
    EXPECT_EQ(ring.reader.Available(), 1U);
  }
  {
    RingPair ring;
    ring.Write("a");
    ring.memory.Control().head = 1;          // the writer has shown it and has not looked yet
    ring.memory.Control().readerSleeps = 0;  // when the reader says so and looks
    EXPECT_FALSE(ring.reader.Sleep());
    EXPECT_FALSE(ring.writer.Publish());
  }
}

TEST(ShmRing, WriterWaitsOnlyWithoutRoomForHalfTheRing) {
  RingPair ring;
  EXPECT_FALSE(ring.writer.WaitForRoom());
  EXPECT_EQ(ring.memory.Control().writerWaits, 0U);
  ring.Write("123456789");
  ring.writer.Publish();
  EXPECT_TRUE(ring.writer.WaitForRoom());
  EXPECT_EQ(ring.memory.Control().writerWaits, 1U);
  ring.Read(1);
  EXPECT_FALSE(ring.writer.WaitForRoom());
  EXPECT_EQ(ring.memory.Control().writerWaits, 0U);
}

TEST(ShmRing, WaitingWriterIsToldOnceWhenHalfIsFree) {
  RingPair ring;
  ring.Write("0123456789abcdef");
  ring.writer.Publish();
  EXPECT_TRUE(ring.writer.WaitForRoom());
  ring.Read(7);
  EXPECT_FALSE(ring.reader.ShallTellRoom(9));
  ring.Read(1);
  EXPECT_TRUE(ring.reader.ShallTellRoom(8));
  EXPECT_FALSE(ring.reader.ShallTellRoom(8));
  EXPECT_FALSE(ring.reader.ShallTellRoomForSure());
  EXPECT_TRUE(ring.writer.HasRoom());
}

TEST(ShmRing, WriterThatBeginsToWaitAfterTheFirstLookIsFoundByTheSecond) {
  RingPair ring;
  ring.Write("0123456789abcdef");
  ring.writer.Publish();
  ring.Read(7);
  EXPECT_FALSE(ring.reader.ShallTellRoom(9));
  EXPECT_TRUE(ring.writer.WaitForRoom());
  EXPECT_FALSE(ring.reader.ShallTellRoomForSure());
  ring.Read(1);
  EXPECT_TRUE(ring.reader.ShallTellRoomForSure());
}

TEST(ShmRing, WriterThatDoesNotWaitIsNotTold) {
  RingPair ring;
  ring.Write("0123456789");
  ring.writer.Publish();
  ring.Read();
  EXPECT_FALSE(ring.reader.ShallTellRoom(0));
}

// --- two threads ---

using Wake = std::counting_semaphore<>;

// False when nobody has woken us: a wake-up was lost.
bool WaitFor(Wake& wake) { return wake.try_acquire_for(std::chrono::seconds(20)); }

// Writes whole messages of random length, each with its hash, and sleeps as often as it can.
void WriteAll(const Ring& ring, int messages, Wake& wakeReader, Wake& wakeWriter) {
  RingWriter writer(ring);
  std::mt19937 random(3);
  for (int i = 0; i < messages; ++i) {
    std::string text(random() % (3 * ring.size), static_cast<char>(i));
    for (std::size_t at = 0; at < text.size(); at += 7) text[at] = static_cast<char>(random());
    const auto size = static_cast<std::uint32_t>(text.size());
    std::uint32_t head[] = {size, keelbase::hash_bytes(text.data(), size, size)};
    text.insert(0, reinterpret_cast<const char*>(head), sizeof head);
    for (std::size_t at = 0; at < text.size();) {
      at += writer.Write(text.data() + at, text.size() - at);
      if (writer.Publish()) wakeReader.release();
      if (at == text.size() || !writer.WaitForRoom()) continue;
      ASSERT_TRUE(WaitFor(wakeWriter));
    }
  }
  ASSERT_FALSE(writer.IsBroken());
}

// Fills `text`.
void ReadFully(RingReader& reader, std::string& text, Wake& wakeReader, Wake& wakeWriter) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t available = reader.Available();
    const std::size_t length = std::min(available, text.size() - at);
    if (length != 0) {
      reader.Read(text.data() + at, length);
      at += length;
      if (reader.ShallTellRoomForSure()) wakeWriter.release();
    } else if (reader.Sleep()) {
      ASSERT_TRUE(WaitFor(wakeReader));
      reader.Awake();
    }
  }
}

TEST(ShmRing, NothingIsLostBetweenTwoThreadsThatSleepAndWakeEachOther) {
  for (const std::size_t size : {std::size_t{16}, std::size_t{256}, std::size_t{65536}}) {
    RingMemory memory(size);
    Wake wakeReader(0);
    Wake wakeWriter(0);
    const int messages = size > 1000 ? 200 : 3000;
    std::thread writing([&] { WriteAll(memory.Get(), messages, wakeReader, wakeWriter); });
    RingReader reader(memory.Get());
    int wrong = 0;
    for (int i = 0; i < messages && !::testing::Test::HasFailure(); ++i) {
      std::string head(8, '\0');
      ReadFully(reader, head, wakeReader, wakeWriter);
      std::uint32_t words[2];
      std::memcpy(words, head.data(), sizeof words);
      ASSERT_LE(words[0], 3 * size);
      std::string text(words[0], '\0');
      ReadFully(reader, text, wakeReader, wakeWriter);
      wrong += keelbase::hash_bytes(text.data(), words[0], words[0]) != words[1];
    }
    writing.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(memory.IsWhole());
  }
}

}  // namespace
}  // namespace fshmipc
