// StreamReceive_test.cpp - from received bytes to frames, in a stream of any kind, over scripted
// transports.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingStream.h"

namespace zarn::test {
namespace {

using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

template <class World>
class StreamReceive : public ::testing::Test, public StreamFixture<World> {
 protected:
  typename StreamFixture<World>::Transport transport = this->Attach();
};

TYPED_TEST_SUITE(StreamReceive, StreamWorlds, WorldNames);

// --- the framed-stream contract ---

TYPED_TEST(StreamReceive, WholeFrameIsHandledOnce) {
  this->transport->Receive("frame;");
  EXPECT_EQ(this->stream->frames, Strings{"frame"});
  EXPECT_EQ(this->stream->views, Strings{"frame;"});
}

TYPED_TEST(StreamReceive, TwoAndAHalfFramesInOneEventNeedThreeCallsAndTheNextEventCompletes) {
  this->transport->Receive("one;two;thr");
  EXPECT_EQ(this->stream->views, (Strings{"one;two;thr", "two;thr", "thr"}));
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two"}));
  this->transport->Receive("ee;");
  EXPECT_EQ(this->stream->views.back(), "three;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two", "three"}));
}

TYPED_TEST(StreamReceive, HandlerIsNotCalledWithoutBytes) {
  this->transport->Receive("one;");
  EXPECT_EQ(this->stream->views.size(), 1U);
  this->transport->Receive("");
  EXPECT_EQ(this->stream->views.size(), 1U);
}

TYPED_TEST(StreamReceive, EventWithoutBytesForAClosedStreamIsIgnored) {
  this->stream->Close(0);
  this->stream->upcalls.clear();
  this->transport->Receive("");
  EXPECT_TRUE(this->stream->views.empty());
  EXPECT_TRUE(this->stream->upcalls.empty());
}

TYPED_TEST(StreamReceive, UnfinishedFrameIsOfferedAgainWithEachEvent) {
  this->transport->Receive("a");
  this->transport->Receive("b");
  this->transport->Receive("c;");
  EXPECT_EQ(this->stream->views, (Strings{"a", "ab", "abc;"}));
  EXPECT_EQ(this->stream->frames, Strings{"abc"});
}

TYPED_TEST(StreamReceive, ReceivedChainIsHandledWholeAndAdvancedOnlyWhereThatIsTheRule) {
  auto chain = Chain({"one;", "tw", "o;rest"});
  this->transport->Receive(*chain);
  EXPECT_EQ(chain->GetChainedLength(), TypeParam::kAdvancesReceived ? 0U : 12U);
  EXPECT_EQ(this->stream->views.front(), "one;two;rest");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two"}));
}

TYPED_TEST(StreamReceive, FrameThatArrivesWholeIsParsedInPlace) {
  auto chain = Chain({"one;two;"});
  const char* bytes = chain->GetReadPtr();
  this->transport->Receive(*chain);
  ASSERT_EQ(this->stream->addresses.size(), 2U);
  EXPECT_EQ(this->stream->addresses[0], bytes);
  EXPECT_EQ(this->stream->addresses[1], bytes + 4);
}

TYPED_TEST(StreamReceive, BytesBelongingToTheTransportMayChangeAfterTheEvent) {
  std::string bytes = "ha";
  CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
  this->transport->Receive(block);
  bytes = "##";
  this->transport->Receive("lf;");
  EXPECT_EQ(this->stream->frames, Strings{"half"});
}

TYPED_TEST(StreamReceive, SmallRemainderDoesNotPinTheTransportsReadBuffer) {
  CAWMessageBlock block(65536);
  std::string bytes(60000, 'x');
  bytes += ";half";
  block.Write(bytes.data(), bytes.size());
  this->transport->Receive(block);
  EXPECT_FALSE(block.IsShared());
  this->transport->Receive(" done;");
  EXPECT_EQ(this->stream->frames.back(), "half done");
}

TYPED_TEST(StreamReceive, FrameInAThousandPiecesComesOutWhole) {
  std::string frame;
  for (int i = 0; i < 1000; ++i) {
    const std::string piece = "piece " + std::to_string(i) + std::string(90, 'p');
    frame += piece;
    this->transport->Receive(piece);
    ASSERT_TRUE(this->stream->frames.empty());
    this->stream->views.clear();
  }
  this->transport->Receive(";");
  ASSERT_EQ(this->stream->frames.size(), 1U);
  EXPECT_TRUE(this->stream->frames[0] == frame);
}

TYPED_TEST(StreamReceive, SizesAroundTheScratchAreaComeOutWhole) {
  for (const std::size_t size : {1U, 4094U, 4095U, 4096U, 4097U, 8192U, 65535U, 200000U}) {
    std::string frame;
    for (std::size_t i = 0; i < size; ++i) frame += static_cast<char>('a' + i % 26);
    this->transport->Receive(
        *Chain({frame.substr(0, size / 3), frame.substr(size / 3) + ";next", "one;"}));
    ASSERT_EQ(this->stream->frames.size(), 2U) << size;
    EXPECT_TRUE(this->stream->frames[0] == frame) << size;
    EXPECT_EQ(this->stream->frames[1], "nextone");
    this->stream->frames.clear();
  }
}

TYPED_TEST(StreamReceive, AnySplitOfTheBytesGivesTheSameFrames) {
  std::mt19937 random(42);  // fixed: the same splits every time
  Strings expected;
  std::string bytes;
  for (int i = 0; i < 300; ++i) {
    const std::size_t size = random() % 5 == 0 ? random() % 20000 : random() % 50;
    expected.emplace_back(size, static_cast<char>('a' + i % 26));
    bytes += expected.back() + ";";
  }
  for (const std::size_t largest : {1U, 7U, 100U, 3000U, 70000U}) {
    this->stream->frames.clear();
    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t size = 1 + random() % largest;
      this->transport->Receive(bytes.substr(at, size));
      this->stream->views.clear();
      at += size;
      // With single bytes every event would show the whole frame so far again: keep that run short.
      if (largest == 1 && at > 20000) break;
    }
    auto complete = expected;
    if (largest == 1) complete.resize(this->stream->frames.size());
    EXPECT_GT(this->stream->frames.size(), largest == 1 ? 2U : 299U);
    EXPECT_TRUE(this->stream->frames == complete) << largest;
    this->stream->Close(0);
    this->transport = this->Attach();
  }
}

TYPED_TEST(StreamReceive, CloseInTheHandlerDropsTheReceivedBytesButNoAcceptedOne) {
  this->transport->Receive("half");
  this->transport->AnswerNext(keelbase::AW_ERROR_PARTIAL_DATA, 0);
  this->Send("accepted;");
  this->stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    this->stream->Close(0);
    return 0;
  };
  this->log.clear();
  this->transport->Receive("x");
  EXPECT_EQ(this->log, (CallLog{"transport.LingerData", "transport.Disconnect(0)",
                                TypeParam::kClosedByHandler}));
  EXPECT_EQ(this->transport->lingerData, "accepted;");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);

  this->stream->onMessage = nullptr;
  auto fresh = this->Attach();
  fresh->Receive("whole;");
  EXPECT_EQ(this->stream->frames, Strings{"whole"});
}

// --- the receive limit ---

TYPED_TEST(StreamReceive, NoReceiveLimitByDefault) {
  for (int i = 0; i < 64; ++i) {
    this->transport->Receive(std::string(65535, 'x'));
    this->stream->views.clear();
  }
  EXPECT_TRUE(this->transport->stopReading.empty());
}

TYPED_TEST(StreamReceive, ReadingStopsAboveTheLimitAndGoesOnBelowIt) {
  this->stream->SetReceiveLimit(10);
  this->transport->Receive("0123456789");
  EXPECT_FALSE(this->transport->IsReadingStopped());
  this->transport->Receive("a");
  EXPECT_TRUE(this->transport->IsReadingStopped());
  this->transport->Receive(";");  // was on its way already
  EXPECT_EQ(this->stream->frames, Strings{"0123456789a"});
  EXPECT_FALSE(this->transport->IsReadingStopped());
}

TYPED_TEST(StreamReceive, BytesThatAreConsumedDoNotCountTowardsTheLimit) {
  this->stream->SetReceiveLimit(10);
  this->transport->Receive("0123456789012345;x");
  EXPECT_FALSE(this->transport->IsReadingStopped());
}

TYPED_TEST(StreamReceive, StopReadingHoldsWhateverIsReceivedAfterwards) {
  this->stream->SetReceiveLimit(10);
  this->stream->StopReading();
  EXPECT_TRUE(this->transport->IsReadingStopped());
  this->transport->Receive("one;");
  EXPECT_TRUE(this->transport->IsReadingStopped());
}

TYPED_TEST(StreamReceive, MalformedFrameStopsReadingAndIsCountedOnceForEachConnection) {
  this->stream->onMessage = [this](const char*, std::size_t) {
    this->stream->StopAtMalformedFrame();
    return 0;
  };
  this->transport->Receive("nonsense");
  EXPECT_TRUE(this->transport->IsReadingStopped());
  this->transport->Receive("more of it, which was on its way");
  EXPECT_TRUE(this->transport->IsReadingStopped());
  EXPECT_EQ(this->stream->GetCounters().malformedFrames, 1U);
  this->stream->Close(0);
  auto fresh = this->Attach();
  EXPECT_FALSE(fresh->IsReadingStopped());
  fresh->Receive("nonsense");
  EXPECT_EQ(this->stream->GetCounters().malformedFrames, 2U);
}

// What a transport hands over all the same is what the peer left before its end; a peer chooses how
// much that is.
TYPED_TEST(StreamReceive, WhatComesBehindAMalformedFrameCostsBoundedMemory) {
  constexpr std::size_t kPiece = 60000;
  std::size_t most = 0;
  int calls = 0;
  this->stream->onMessage = [&](const char*, std::size_t length) {
    this->stream->StopAtMalformedFrame();
    most = std::max(most, length);
    ++calls;
    return 0;
  };
  const std::string piece(kPiece, 'x');
  for (int i = 0; i < 100; ++i) this->transport->Receive(piece);
  EXPECT_GT(most, kPiece);
  EXPECT_LE(most, 1024 * 1024 + kPiece);
  EXPECT_LT(calls, 20);
  this->stream->Close(0);
  this->stream->onMessage = nullptr;
  auto fresh = this->Attach();
  fresh->Receive("one;");
  EXPECT_EQ(this->stream->frames, Strings{"one"});
}

TYPED_TEST(StreamReceive, NewConnectionIsReadAgainAfterAStop) {
  this->stream->SetReceiveLimit(10);
  this->transport->Receive("more than ten bytes");
  EXPECT_TRUE(this->transport->IsReadingStopped());
  this->stream->Close(0);
  auto fresh = this->Attach();
  EXPECT_FALSE(fresh->IsReadingStopped());
  fresh->Receive("more than ten bytes");
  EXPECT_TRUE(fresh->IsReadingStopped());
}

}  // namespace
}  // namespace zarn::test
