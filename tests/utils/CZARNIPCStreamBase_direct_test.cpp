// CZARNIPCStreamBase_direct_test.cpp - OnReceiveDirect: blocks that a caller delivers itself,
// handled without a receive buffer. Over a scripted transport.
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

class CZARNIPCStreamBaseDirect : public ::testing::Test, public StreamFixture<OverIpc> {
 protected:
  Transport transport = Attach();
};

TEST_F(CZARNIPCStreamBaseDirect, DirectBlockIsConsumedFrameByFrameAndKeepsItsRest) {
  auto chain = Chain({"one;two;rest"});
  const char* bytes = chain->GetReadPtr();
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(stream->frames, (Strings{"one", "two"}));
  EXPECT_EQ(stream->addresses[0], bytes);
  EXPECT_EQ(chain->FlattenChained(), "rest");
}

TEST_F(CZARNIPCStreamBaseDirect, DirectBlockLooksAtItsFirstSegmentOnly) {
  auto chain = Chain({"one;tw", "o;"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(stream->views, (Strings{"one;tw", "tw"}));
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(chain->FlattenChained(), "two;");
}

TEST_F(CZARNIPCStreamBaseDirect, DirectBlockDoesNotTouchTheReceiveBuffer) {
  transport->Receive("ha");
  auto chain = Chain({"direct;x"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(stream->views.back(), "x");
  transport->Receive("lf;");
  EXPECT_EQ(stream->frames, (Strings{"direct", "half"}));
}

TEST_F(CZARNIPCStreamBaseDirect, DirectBlockWithAnEmptyFirstSegmentAnswersZeroOnAnOpenStream) {
  auto chain = Chain({"", "one;"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_TRUE(stream->views.empty());
  EXPECT_EQ(chain->GetChainedLength(), 4U);
}

TEST_F(CZARNIPCStreamBaseDirect, DirectBlockWithAnEmptyFirstSegmentOnAClosedStreamIsATeardown) {
  stream->Close(0);
  CAWMessageBlock empty(8);
  EXPECT_EQ(stream->OnReceiveDirect(empty), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CZARNIPCStreamBaseDirect, DirectCountBeyondTheBytesIsTracedAndTearsDown) {
  TraceLines trace;
  stream->onMessage = [](const char*, std::size_t len) { return len + 3; };
  log.clear();
  auto chain = Chain({"bytes"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_ERROR_FAILURE);
  EXPECT_EQ(log, (CallLog{"transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 1U);

  char expected[200];
  std::snprintf(
      expected, sizeof expected,
      "CAWTCPSessionBase::OnReceiveDirect handlemessage return size=8>remainsize=5 this=%p",
      static_cast<const void*>(static_cast<utils::CZARNIPCStreamBase*>(stream.get())));
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 0U);
  EXPECT_EQ(lines[0].text, expected);
}

TEST_F(CZARNIPCStreamBaseDirect, DirectTraceLineNamesWhatRemainsAfterEarlierFrames) {
  TraceLines trace;
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    return stream->views.size() == 1 ? 4 : 6;
  };
  auto chain = Chain({"one;two;"});
  stream->OnReceiveDirect(*chain);
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].text.find("return size=6>remainsize=4 this="), std::string::npos);
}

TEST_F(CZARNIPCStreamBaseDirect, DirectTeardownLeavesTheConnector) {
  transport = ConnectFully();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  TraceLines trace;
  auto chain = Chain({"bytes"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_ERROR_FAILURE);
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
}

TEST_F(CZARNIPCStreamBaseDirect, DirectTeardownDropsBothBuffersButLosesNoAcceptedByte) {
  transport->Receive("half");
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("accepted;");
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    stream->Close(0);
    return 0;
  };
  auto chain = Chain({"x"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_ERROR_FAILURE);
  EXPECT_EQ(transport->lingerData, "accepted;");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CZARNIPCStreamBaseDirect, DirectBlockIsHandledWithoutATransportToo) {
  RecordingStream alone;
  auto chain = Chain({"one;"});
  EXPECT_EQ(alone.OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(alone.frames, Strings{"one"});
}

// --- a handler that closes, reconnects or deletes the stream ---

TEST_F(CZARNIPCStreamBaseDirect, CloseInsideADirectBlockAnswers10001) {
  DuringFirstMessage([&] { stream->Close(0); });
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CZARNIPCStreamBaseDirect, ReconnectInsideADirectBlockIsNotTouched) {
  DuringFirstMessage([&] {
    stream->Close(0);
    Connect(2);
  });
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  stream->OnReceiveDirect(block);
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(manager.Last().IsPending());
  EXPECT_TRUE(stream->upcalls.empty());
}

TEST_F(CZARNIPCStreamBaseDirect, DeletingItselfInsideADirectBlockAnswers10001) {
  stream->onMessage = [&](const char*, std::size_t) {
    stream.reset();
    return std::size_t{4};
  };
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_TRUE(destroyed);
}

TEST_F(CZARNIPCStreamBaseDirect, DeletingItselfAfterADirectBlockIsAllowed) {
  TraceLines trace;
  DeleteAtTheEnd();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_TRUE(destroyed);
}

}  // namespace
}  // namespace zarn::test
