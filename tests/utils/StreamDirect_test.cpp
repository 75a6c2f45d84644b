// StreamDirect_test.cpp - OnReceiveDirect: blocks that a caller delivers itself, handled without a
// receive buffer, in the streams that have it. Over scripted transports.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingStream.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

template <class World>
class StreamDirect : public ::testing::Test, public StreamFixture<World> {
 protected:
  typename StreamFixture<World>::Transport transport = this->Attach();
};

TYPED_TEST_SUITE(StreamDirect, AdvancingWorlds, WorldNames);

TYPED_TEST(StreamDirect, DirectBlockIsConsumedFrameByFrameAndKeepsItsRest) {
  auto chain = Chain({"one;two;rest"});
  const char* bytes = chain->GetReadPtr();
  EXPECT_EQ(this->stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(this->stream->frames, (Strings{"one", "two"}));
  EXPECT_EQ(this->stream->addresses[0], bytes);
  EXPECT_EQ(chain->FlattenChained(), "rest");
}

TYPED_TEST(StreamDirect, DirectBlockLooksAtItsFirstSegmentOnly) {
  auto chain = Chain({"one;tw", "o;"});
  EXPECT_EQ(this->stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(this->stream->views, (Strings{"one;tw", "tw"}));
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_EQ(chain->FlattenChained(), "two;");
}

TYPED_TEST(StreamDirect, DirectBlockDoesNotTouchTheReceiveBuffer) {
  this->transport->Receive("ha");
  auto chain = Chain({"direct;x"});
  EXPECT_EQ(this->stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(this->stream->views.back(), "x");
  this->transport->Receive("lf;");
  EXPECT_EQ(this->stream->frames, (Strings{"direct", "half"}));
}

TYPED_TEST(StreamDirect, DirectBlockWithAnEmptyFirstSegmentAnswersZeroOnAnOpenStream) {
  auto chain = Chain({"", "one;"});
  EXPECT_EQ(this->stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_TRUE(this->stream->views.empty());
  EXPECT_EQ(chain->GetChainedLength(), 4U);
}

TYPED_TEST(StreamDirect, DirectBlockWithAnEmptyFirstSegmentOnAClosedStreamIsATeardown) {
  this->stream->Close(0);
  CAWMessageBlock empty(8);
  EXPECT_EQ(this->stream->OnReceiveDirect(empty), AW_ERROR_FAILURE);
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TYPED_TEST(StreamDirect, DirectCountBeyondTheBytesIsTracedAndTearsDown) {
  TraceLines trace;
  this->stream->onMessage = [](const char*, std::size_t len) { return len + 3; };
  this->log.clear();
  auto chain = Chain({"bytes"});
  EXPECT_EQ(this->stream->OnReceiveDirect(*chain), AW_ERROR_FAILURE);
  EXPECT_EQ(this->log, (CallLog{"transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(this->transport->GetReferences(), 1U);

  char expected[200];
  std::snprintf(expected, sizeof expected,
                "%s::OnReceiveDirect handlemessage return size=8>remainsize=5 this=%p",
                TypeParam::kDirectTrace, static_cast<const void*>(this->stream.get()));
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 0U);
  EXPECT_EQ(lines[0].text, expected);
}

TYPED_TEST(StreamDirect, DirectTraceLineNamesWhatRemainsAfterEarlierFrames) {
  TraceLines trace;
  this->stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    return this->stream->views.size() == 1 ? 4 : 6;
  };
  auto chain = Chain({"one;two;"});
  this->stream->OnReceiveDirect(*chain);
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].text.find("return size=6>remainsize=4 this="), std::string::npos);
}

TYPED_TEST(StreamDirect, DirectTeardownLeavesTheConnector) {
  this->transport = this->ConnectFully();
  this->stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  TraceLines trace;
  auto chain = Chain({"bytes"});
  EXPECT_EQ(this->stream->OnReceiveDirect(*chain), AW_ERROR_FAILURE);
  EXPECT_EQ(this->manager.Last().cancels, 0);
  EXPECT_EQ(this->manager.Last().GetReferences(), 2U);
}

TYPED_TEST(StreamDirect, DirectTeardownDropsBothBuffersButLosesNoAcceptedByte) {
  this->transport->Receive("half");
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->Send("accepted;");
  this->stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    this->stream->Close(0);
    return 0;
  };
  auto chain = Chain({"x"});
  EXPECT_EQ(this->stream->OnReceiveDirect(*chain), AW_ERROR_FAILURE);
  EXPECT_EQ(this->transport->lingerData, "accepted;");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TYPED_TEST(StreamDirect, DirectBlockIsHandledWithoutATransportToo) {
  typename TypeParam::Stream alone;
  auto chain = Chain({"one;"});
  EXPECT_EQ(alone.OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(alone.frames, Strings{"one"});
}

// --- a handler that closes, reconnects or deletes the this->stream ---

TYPED_TEST(StreamDirect, CloseInsideADirectBlockAnswers10001) {
  this->DuringFirstMessage([&] { this->stream->Close(0); });
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(this->stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TYPED_TEST(StreamDirect, ReconnectInsideADirectBlockIsNotTouchedAndTheRestStays) {
  this->DuringFirstMessage([&] {
    this->stream->Close(0);
    this->Connect(2);
  });
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(this->stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_EQ(block.FlattenChained(), "two;");
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->manager.Last().IsPending());
  EXPECT_TRUE(this->stream->upcalls.empty());
  EXPECT_EQ(this->stream->GetCounters().messagesReceived, 1U);
  EXPECT_EQ(this->stream->GetCounters().bytesReceived, 4U);
}

TYPED_TEST(StreamDirect, DeletingItselfInsideADirectBlockAnswers10001) {
  this->stream->onMessage = [&](const char*, std::size_t) {
    this->stream.reset();
    return std::size_t{4};
  };
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(this->stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_TRUE(this->destroyed);
}

TYPED_TEST(StreamDirect, DeletingItselfAfterADirectBlockIsAllowed) {
  TraceLines trace;
  this->DeleteAtTheEnd();
  this->stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(this->stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_TRUE(this->destroyed);
}

}  // namespace
}  // namespace zarn::test
