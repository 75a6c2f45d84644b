// StreamBlockReceive_test.cpp - the rules of receiving that all streams have whose handlers are
// given blocks and which keep the rest of an event. Over scripted transports.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingBlocks.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

template <class World>
class StreamBlockReceive : public ::testing::Test, public StreamFixture<World> {
 protected:
  typename StreamFixture<World>::Transport transport = this->Attach();

  void AnswerAlways(std::uint16_t count) {
    this->stream->onMessage = [count](CAWMessageBlock&) { return count; };
  }
};

using BlockWorlds = ::testing::Types<OverTcpTransport, OverPtcp>;
TYPED_TEST_SUITE(StreamBlockReceive, BlockWorlds, WorldNames);

// --- receiving with nothing held back ---

TYPED_TEST(StreamBlockReceive, WholeFrameIsHandledOnceAndNothingIsKept) {
  auto block = Chain({"one;"});
  this->transport->Receive(*block);
  EXPECT_EQ(block->GetChainedLength(), 0U);
  this->transport->Receive("two;");
  EXPECT_EQ(this->stream->views, (Strings{"one;", "two;"}));
}

TYPED_TEST(StreamBlockReceive, FrameAndAHalfIsHandledOnceAndTheHalfIsKept) {
  this->transport->Receive("one;tw");
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_EQ(this->stream->views, (Strings{"one;tw", "tw"}));
  this->transport->Receive("o;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two"}));
  EXPECT_EQ(this->stream->views.back(), "two;");
}

TYPED_TEST(StreamBlockReceive, HandlerThatAnswersZeroKeepsEveryByte) {
  this->AnswerAlways(0);
  this->transport->Receive("a;");
  this->transport->Receive("b;");
  EXPECT_EQ(this->stream->views, (Strings{"a;", "a;b;"}));
}

TYPED_TEST(StreamBlockReceive, LastFrameBehindAnotherIsHandledAndOfferedAgainWithTheNextEvent) {
  this->transport->Receive("one;two;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two"}));
  this->transport->Receive("three;");
  EXPECT_EQ(this->stream->views, (Strings{"one;two;", "two;", "two;three;", "three;"}));
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two", "two", "three"}));
}

TYPED_TEST(StreamBlockReceive, SecondPartialStepOverwritesTheKeptCopyAndOnlyTheLastFrameIsStale) {
  this->transport->Receive("one;two;three;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two", "three"}));
  this->transport->Receive("x");
  EXPECT_EQ(this->stream->views.back(), "x");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two", "three", "three"}));
}

TYPED_TEST(StreamBlockReceive, OverwrittenCopyIsFreed) {
  CAWMessageBlock block(65536);
  for (int i = 0; i < 1000; ++i) block.Write("frame;", 6);
  this->transport->Receive(block);
  EXPECT_EQ(this->stream->frames.size(), 1000U);
  this->stream.reset();
  EXPECT_FALSE(block.IsShared());  // no copy is left anywhere
}

TYPED_TEST(StreamBlockReceive, AStaleFrameIsOfferedAgainAlsoWithAnEmptyEvent) {
  this->transport->Receive("one;two;");
  this->transport->Receive("");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two", "two"}));
  this->transport->Receive("");
  EXPECT_EQ(this->stream->frames.size(), 3U);
}

TYPED_TEST(StreamBlockReceive, EmptyEventWithNothingHeldBackIsIgnored) {
  this->transport->Receive("");
  EXPECT_TRUE(this->stream->views.empty());
}

TYPED_TEST(StreamBlockReceive, BlockIsAdvancedOverTheFramesThatWereHandled) {
  auto block = Chain({"one;t", "wo;half"});
  this->transport->Receive(*block);
  EXPECT_EQ(block->FlattenChained(), "half");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two"}));
}

TYPED_TEST(StreamBlockReceive, HandlerGetsADuplicateThatItMayAdvance) {
  this->stream->onMessage = [&](CAWMessageBlock& data) {
    const std::uint16_t length = this->stream->TakeFrame(data);
    data.AdvanceChainedReadPtr(data.GetChainedLength());
    return length;
  };
  auto block = Chain({"one;two;th"});
  this->transport->Receive(*block);
  EXPECT_NE(this->stream->lastBlock, block.get());
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two"}));
  this->transport->Receive("ree;");
  EXPECT_EQ(this->stream->frames.back(), "three");
}

// --- receiving behind what was held back ---

TYPED_TEST(StreamBlockReceive, BytesBehindAHalfFrameAreAppendedAndTheBlockIsLeftAsItIs) {
  this->transport->Receive("ha");
  auto block = Chain({"lf;next;re"});
  this->transport->Receive(*block);
  EXPECT_EQ(block->FlattenChained(), "lf;next;re");
  EXPECT_EQ(this->stream->frames, (Strings{"half", "next"}));
  this->transport->Receive("st;");
  EXPECT_EQ(this->stream->frames.back(), "rest");
}

TYPED_TEST(StreamBlockReceive, FramesBehindAHalfFrameLeaveNoStaleCopy) {
  this->transport->Receive("ha");
  this->transport->Receive("lf;one;two;");
  EXPECT_EQ(this->stream->frames, (Strings{"half", "one", "two"}));
  this->transport->Receive("three;");
  EXPECT_EQ(this->stream->views.back(), "three;");
}

TYPED_TEST(StreamBlockReceive, BytesOfAnyTransportAreTaken) {
  auto other = this->NewTransport();
  this->transport->Receive("ha");
  this->stream->OnReceive(*Chain({"lf;"}), other.Get(), nullptr);
  this->stream->OnReceive(*Chain({"more;"}), nullptr, nullptr);
  EXPECT_EQ(this->stream->frames, (Strings{"half", "more"}));
}

TYPED_TEST(StreamBlockReceive, LongestFrameIs65535Bytes) {
  this->stream->onMessage = [&](CAWMessageBlock& data) -> std::uint16_t {
    return data.GetChainedLength() < 65535 ? 0 : 65535;
  };
  this->transport->Receive(std::string(65534, 'x'));
  this->transport->Receive("yz");
  EXPECT_EQ(this->stream->GetCounters().messagesReceived, 1U);
  EXPECT_EQ(this->stream->views.back(), "z");
}

// --- violations, and handlers that end the stream ---

TYPED_TEST(StreamBlockReceive, CountBeyondTheBytesTearsDownOnBothPaths) {
  for (const bool held : {false, true}) {
    auto fresh = this->Attach();
    if (held) fresh->Receive("half");
    this->AnswerAlways(7);
    this->log.clear();
    fresh->Receive(held ? "+x" : "sixsix");
    EXPECT_EQ(this->log, (CallLog{"transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
    EXPECT_EQ(fresh->GetReferences(), 1U);
    this->stream->onMessage = nullptr;
  }
}

TYPED_TEST(StreamBlockReceive, TeardownDropsBothBuffersButLosesNoAcceptedByte) {
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->Send("accepted;");
  this->transport->Receive("half");
  this->AnswerAlways(100);
  this->transport->Receive("x");
  EXPECT_EQ(this->transport->lingerData, "accepted;");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
  this->stream->onMessage = nullptr;
  this->Attach()->Receive("whole;");
  EXPECT_EQ(this->stream->views.back(), "whole;");
}

TYPED_TEST(StreamBlockReceive, DisconnectInsideTheHandlerEndsDeliveryAndReportsOnce) {
  for (const bool held : {false, true}) {
    auto fresh = this->Attach();
    if (held) fresh->Receive("on");
    this->stream->frames.clear();
    this->stream->upcalls.clear();
    this->stream->onMessage = [&](CAWMessageBlock& data) {
      this->stream->Disconnect(5);
      return this->stream->TakeFrame(data);
    };
    fresh->Receive(held ? "e;two;" : "one;two;");
    EXPECT_EQ(this->stream->frames, Strings{"one"});
    EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
    EXPECT_EQ(fresh->disconnects, std::vector<long>{5});
    this->stream->onMessage = nullptr;
  }
}

TYPED_TEST(StreamBlockReceive, NewTransportInsideTheHandlerIsNotTouchedByTheOldLoop) {
  for (const bool held : {false, true}) {
    auto old = this->Attach();
    if (held) old->Receive("on");
    this->stream->frames.clear();
    typename TestFixture::Transport fresh;
    this->stream->onMessage = [&](CAWMessageBlock& data) {
      this->stream->onMessage = nullptr;
      const std::uint16_t length = this->stream->TakeFrame(data);
      this->stream->Disconnect(0);
      fresh = this->Attach();
      return length;
    };
    old->Receive(held ? "e;two;" : "one;two;");
    EXPECT_TRUE(fresh->disconnects.empty());
    fresh->Receive("three;");
    EXPECT_EQ(this->stream->frames, (Strings{"one", "three"}));
  }
  EXPECT_TRUE(this->stream->upcalls.empty());
}

TYPED_TEST(StreamBlockReceive, NewTransportInsideALaterFrameHearsNothingOfTheOldOne) {
  typename TestFixture::Transport fresh;
  this->stream->onMessage = [&](CAWMessageBlock& data) {
    if (this->stream->frames.size() == 1) fresh = this->Attach();
    return this->stream->TakeFrame(data);
  };
  this->transport->Receive("one;two;three;");
  fresh->Receive("four;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two", "four"}));
}

TYPED_TEST(StreamBlockReceive, DeletingItselfInsideTheHandlerIsAllowedOnBothPaths) {
  for (const bool held : {false, true}) {
    this->stream = std::make_unique<typename TestFixture::Stream>(&this->log);
    this->destroyed = false;
    this->stream->destroyed = &this->destroyed;
    auto fresh = this->Attach();
    if (held) fresh->Receive("on");
    std::string seen;
    this->stream->onMessage = [&](CAWMessageBlock& data) -> std::uint16_t {
      this->stream.reset();
      seen = data.FlattenChained();
      return 4;
    };
    fresh->Receive(held ? "e;two;" : "one;two;");
    EXPECT_TRUE(this->destroyed);
    EXPECT_EQ(seen, "one;two;");
    EXPECT_EQ(fresh->disconnects, std::vector<long>{0});
  }
}

TYPED_TEST(StreamBlockReceive, DeletingItselfInsideTheLastUpcallIsAllowed) {
  this->DeleteAtTheEnd();
  this->AnswerAlways(100);
  this->transport->Receive("x");
  EXPECT_TRUE(this->destroyed);
}

TYPED_TEST(StreamBlockReceive, BytesForAClosedStreamAreOfferedOnceAndTornDown) {
  this->stream->Disconnect(0);
  this->stream->OnReceive(*Chain({"one;two;"}), nullptr, nullptr);
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TYPED_TEST(StreamBlockReceive, EmptyEventForAClosedStreamTearsItDownToo) {
  this->stream->Disconnect(0);
  this->stream->OnReceive(*Chain({""}), nullptr, nullptr);
  EXPECT_TRUE(this->stream->views.empty());
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TYPED_TEST(StreamBlockReceive, FrameWhoseHandlerDisconnectsIsCounted) {
  this->stream->onMessage = [&](CAWMessageBlock& data) {
    this->stream->Disconnect(0);
    return this->stream->TakeFrame(data);
  };
  this->transport->Receive("one;two;");
  EXPECT_EQ(this->stream->GetCounters().messagesReceived, 1U);
  EXPECT_EQ(this->stream->GetCounters().bytesReceived, 8U);
}

TYPED_TEST(StreamBlockReceive, FrameWhoseHandlerTakesAnotherTransportIsCounted) {
  this->stream->onMessage = [&](CAWMessageBlock& data) {
    this->Attach();
    return this->stream->TakeFrame(data);
  };
  this->transport->Receive("one;two;");
  EXPECT_EQ(this->stream->GetCounters().messagesReceived, 1U);
  EXPECT_EQ(this->stream->GetCounters().bytesReceived, 8U);
}

TYPED_TEST(StreamBlockReceive, ReadingStopsAboveTheLimitAndGoesOnBelowIt) {
  this->stream->SetReceiveLimit(10);
  this->transport->Receive("eleven byte");
  EXPECT_TRUE(this->transport->IsReadingStopped());
  this->transport->Receive(";");
  EXPECT_FALSE(this->transport->IsReadingStopped());
}

}  // namespace
}  // namespace zarn::test
