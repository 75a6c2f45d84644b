// CZARNIPCStreamBase_receive_test.cpp - from received bytes to frames, over a scripted transport.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "FakeIpc.h"
#include "NetworkThread.h"
#include "RecordingStream.h"
#include "TraceLines.h"
#include "zarn/utils/CZARNIPCStreamBase.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

// A chain of owned blocks, one for each text.
std::unique_ptr<CAWMessageBlock> Chain(const Strings& texts) {
  std::unique_ptr<CAWMessageBlock> head;
  for (const auto& text : texts) {
    auto* block = new CAWMessageBlock(text.size());
    block->Write(text.data(), text.size());
    if (head)
      head->Append(block);
    else
      head.reset(block);
  }
  return head;
}

class CZARNIPCStreamBaseReceive : public ::testing::Test, public StreamFixture {
 protected:
  Transport transport = Attach();
};

// --- the framed-stream contract ---

TEST_F(CZARNIPCStreamBaseReceive, WholeFrameIsHandledOnce) {
  transport->Receive("frame;");
  EXPECT_EQ(stream->frames, Strings{"frame"});
  EXPECT_EQ(stream->views, Strings{"frame;"});
}

TEST_F(CZARNIPCStreamBaseReceive,
       TwoAndAHalfFramesInOneEventNeedThreeCallsAndTheNextEventCompletes) {
  transport->Receive("one;two;thr");
  EXPECT_EQ(stream->views, (Strings{"one;two;thr", "two;thr", "thr"}));
  EXPECT_EQ(stream->frames, (Strings{"one", "two"}));
  transport->Receive("ee;");
  EXPECT_EQ(stream->views.back(), "three;");
  EXPECT_EQ(stream->frames, (Strings{"one", "two", "three"}));
}

TEST_F(CZARNIPCStreamBaseReceive, HandlerIsNotCalledWithoutBytes) {
  transport->Receive("one;");
  EXPECT_EQ(stream->views.size(), 1U);
  transport->Receive("");
  EXPECT_EQ(stream->views.size(), 1U);
}

TEST_F(CZARNIPCStreamBaseReceive, UnfinishedFrameIsOfferedAgainWithEachEvent) {
  transport->Receive("a");
  transport->Receive("b");
  transport->Receive("c;");
  EXPECT_EQ(stream->views, (Strings{"a", "ab", "abc;"}));
  EXPECT_EQ(stream->frames, Strings{"abc"});
}

TEST_F(CZARNIPCStreamBaseReceive, ReceivedBlockIsAdvancedOverItsWholeChain) {
  auto chain = Chain({"one;", "tw", "o;rest"});
  transport->Receive(*chain);
  EXPECT_EQ(chain->GetChainedLength(), 0U);
  EXPECT_EQ(stream->views.front(), "one;two;rest");
  EXPECT_EQ(stream->frames, (Strings{"one", "two"}));
}

TEST_F(CZARNIPCStreamBaseReceive, FrameThatArrivesWholeIsParsedInPlace) {
  auto chain = Chain({"one;two;"});
  const char* bytes = chain->GetReadPtr();
  transport->Receive(*chain);
  ASSERT_EQ(stream->addresses.size(), 2U);
  EXPECT_EQ(stream->addresses[0], bytes);
  EXPECT_EQ(stream->addresses[1], bytes + 4);
}

TEST_F(CZARNIPCStreamBaseReceive, BytesBelongingToTheTransportMayChangeAfterTheEvent) {
  std::string bytes = "ha";
  CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
  transport->Receive(block);
  bytes = "##";
  transport->Receive("lf;");
  EXPECT_EQ(stream->frames, Strings{"half"});
}

TEST_F(CZARNIPCStreamBaseReceive, SmallRemainderDoesNotPinTheTransportsReadBuffer) {
  CAWMessageBlock block(65536);
  std::string bytes(60000, 'x');
  bytes += ";half";
  block.Write(bytes.data(), bytes.size());
  transport->Receive(block);
  EXPECT_FALSE(block.IsShared());
  transport->Receive(" done;");
  EXPECT_EQ(stream->frames.back(), "half done");
}

TEST_F(CZARNIPCStreamBaseReceive, BytesOfAnotherTransportAreIgnoredAndLeftUntouched) {
  auto other = NewTransport();
  CAWMessageBlock block(8);
  block.Write("other;", 6);
  stream->OnReceive(block, other.Get(), nullptr);
  EXPECT_EQ(block.GetLength(), 6U);
  EXPECT_TRUE(stream->views.empty());
}

TEST_F(CZARNIPCStreamBaseReceive, FrameInAThousandPiecesComesOutWhole) {
  std::string frame;
  for (int i = 0; i < 1000; ++i) {
    const std::string piece = "piece " + std::to_string(i) + std::string(90, 'p');
    frame += piece;
    transport->Receive(piece);
    ASSERT_TRUE(stream->frames.empty());
    stream->views.clear();
  }
  transport->Receive(";");
  ASSERT_EQ(stream->frames.size(), 1U);
  EXPECT_TRUE(stream->frames[0] == frame);
}

TEST_F(CZARNIPCStreamBaseReceive, SizesAroundTheScratchAreaComeOutWhole) {
  for (const std::size_t size : {1U, 4094U, 4095U, 4096U, 4097U, 8192U, 65535U, 200000U}) {
    std::string frame;
    for (std::size_t i = 0; i < size; ++i) frame += static_cast<char>('a' + i % 26);
    transport->Receive(
        *Chain({frame.substr(0, size / 3), frame.substr(size / 3) + ";next", "one;"}));
    ASSERT_EQ(stream->frames.size(), 2U) << size;
    EXPECT_TRUE(stream->frames[0] == frame) << size;
    EXPECT_EQ(stream->frames[1], "nextone");
    stream->frames.clear();
  }
}

TEST_F(CZARNIPCStreamBaseReceive, AnySplitOfTheBytesGivesTheSameFrames) {
  std::mt19937 random(42);  // fixed: the same splits every time
  Strings expected;
  std::string bytes;
  for (int i = 0; i < 300; ++i) {
    const std::size_t size = random() % 5 == 0 ? random() % 20000 : random() % 50;
    expected.emplace_back(size, static_cast<char>('a' + i % 26));
    bytes += expected.back() + ";";
  }
  for (const std::size_t largest : {1U, 7U, 100U, 3000U, 70000U}) {
    stream->frames.clear();
    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t size = 1 + random() % largest;
      transport->Receive(bytes.substr(at, size));
      stream->views.clear();
      at += size;
      // With single bytes every event would show the whole frame so far again: keep that run short.
      if (largest == 1 && at > 20000) break;
    }
    if (largest == 1)
      EXPECT_TRUE(std::equal(stream->frames.begin(), stream->frames.end(), expected.begin()));
    else
      EXPECT_TRUE(stream->frames == expected) << largest;
    stream->Close(0);
    transport = Attach();
  }
}

// --- teardown ---

TEST_F(CZARNIPCStreamBaseReceive, CountBeyondTheBytesTearsTheConnectionDownOnce) {
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  log.clear();
  transport->Receive("bytes");
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(log, (CallLog{"transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(Send("late"), keelbase::AW_ERROR_NOT_INITIALIZED);
}

TEST_F(CZARNIPCStreamBaseReceive, LargestPossibleCountIsAViolationToo) {
  stream->onMessage = [](const char*, std::size_t) { return static_cast<std::size_t>(-1); };
  transport->Receive("bytes");
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{0});
}

TEST_F(CZARNIPCStreamBaseReceive, CountIsComparedWithWhatRemainsAfterEarlierFrames) {
  // 6 would fit the first view but not the second.
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    return stream->views.size() == 1 ? 4 : 6;
  };
  transport->Receive("one;two;");
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(stream->views.size(), 2U);
}

TEST_F(CZARNIPCStreamBaseReceive, TeardownCancelsTheConnectorFirst) {
  transport = ConnectFully();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  log.clear();
  transport->Receive("bytes");
  EXPECT_EQ(log,
            (CallLog{"connector.CancelConnect", "transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseReceive, TeardownInTheReceivePathWritesNoTraceLine) {
  TraceLines trace;
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("bytes");
  EXPECT_TRUE(trace.Get().empty());
}

TEST_F(CZARNIPCStreamBaseReceive, TeardownDropsBothBuffersButLosesNoAcceptedByte) {
  transport->Receive("half");
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("accepted;");
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("x");
  EXPECT_EQ(transport->lingerData, "accepted;");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);

  stream->onMessage = nullptr;
  auto fresh = Attach();
  fresh->Receive("whole;");
  EXPECT_EQ(stream->frames, Strings{"whole"});
}

TEST_F(CZARNIPCStreamBaseReceive, NothingIsDeliveredAfterTheTeardown) {
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("one;two;");
  EXPECT_EQ(stream->views.size(), 1U);
  CAWMessageBlock block(8);
  block.Write("late;", 5);
  stream->OnReceive(block, transport.Get(), nullptr);
  EXPECT_EQ(stream->views.size(), 1U);
  EXPECT_EQ(stream->peerDisconnects.size(), 1U);
}

// --- the receive limit ---

TEST_F(CZARNIPCStreamBaseReceive, NoReceiveLimitByDefault) {
  for (int i = 0; i < 64; ++i) {
    transport->Receive(std::string(65535, 'x'));
    stream->views.clear();
  }
  EXPECT_TRUE(transport->stopReading.empty());
}

TEST_F(CZARNIPCStreamBaseReceive, ReadingStopsAboveTheLimitAndGoesOnBelowIt) {
  stream->SetReceiveLimit(10);
  transport->Receive("0123456789");
  EXPECT_FALSE(transport->IsReadingStopped());
  transport->Receive("a");
  EXPECT_TRUE(transport->IsReadingStopped());
  transport->Receive(";");  // was on its way already
  EXPECT_EQ(stream->frames, Strings{"0123456789a"});
  EXPECT_FALSE(transport->IsReadingStopped());
}

TEST_F(CZARNIPCStreamBaseReceive, BytesThatAreConsumedDoNotCountTowardsTheLimit) {
  stream->SetReceiveLimit(10);
  transport->Receive("0123456789012345;x");
  EXPECT_FALSE(transport->IsReadingStopped());
}

TEST_F(CZARNIPCStreamBaseReceive, StopReadingHoldsWhateverIsReceivedAfterwards) {
  stream->SetReceiveLimit(10);
  stream->StopReading();
  EXPECT_TRUE(transport->IsReadingStopped());
  transport->Receive("one;");
  EXPECT_TRUE(transport->IsReadingStopped());
}

TEST_F(CZARNIPCStreamBaseReceive, NewConnectionIsReadAgainAfterAStop) {
  stream->SetReceiveLimit(10);
  transport->Receive("more than ten bytes");
  EXPECT_TRUE(transport->IsReadingStopped());
  stream->Close(0);
  auto fresh = Attach();
  EXPECT_FALSE(fresh->IsReadingStopped());
  fresh->Receive("more than ten bytes");
  EXPECT_TRUE(fresh->IsReadingStopped());
}

// --- OnReceiveDirect ---

TEST_F(CZARNIPCStreamBaseReceive, DirectBlockIsConsumedFrameByFrameAndKeepsItsRest) {
  auto chain = Chain({"one;two;rest"});
  const char* bytes = chain->GetReadPtr();
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(stream->frames, (Strings{"one", "two"}));
  EXPECT_EQ(stream->addresses[0], bytes);
  EXPECT_EQ(chain->FlattenChained(), "rest");
}

TEST_F(CZARNIPCStreamBaseReceive, DirectBlockLooksAtItsFirstSegmentOnly) {
  auto chain = Chain({"one;tw", "o;"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(stream->views, (Strings{"one;tw", "tw"}));
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(chain->FlattenChained(), "two;");
}

TEST_F(CZARNIPCStreamBaseReceive, DirectBlockDoesNotTouchTheReceiveBuffer) {
  transport->Receive("ha");
  auto chain = Chain({"direct;x"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(stream->views.back(), "x");
  transport->Receive("lf;");
  EXPECT_EQ(stream->frames, (Strings{"direct", "half"}));
}

TEST_F(CZARNIPCStreamBaseReceive, DirectBlockWithAnEmptyFirstSegmentAnswersZeroOnAnOpenStream) {
  auto chain = Chain({"", "one;"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_OK);
  EXPECT_TRUE(stream->views.empty());
  EXPECT_EQ(chain->GetChainedLength(), 4U);
}

TEST_F(CZARNIPCStreamBaseReceive, DirectBlockWithAnEmptyFirstSegmentOnAClosedStreamIsATeardown) {
  stream->Close(0);
  CAWMessageBlock empty(8);
  EXPECT_EQ(stream->OnReceiveDirect(empty), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{0});
}

TEST_F(CZARNIPCStreamBaseReceive, DirectCountBeyondTheBytesIsTracedAndTearsDown) {
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

TEST_F(CZARNIPCStreamBaseReceive, DirectTraceLineNamesWhatRemainsAfterEarlierFrames) {
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

TEST_F(CZARNIPCStreamBaseReceive, DirectTeardownLeavesTheConnector) {
  transport = ConnectFully();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  TraceLines trace;
  auto chain = Chain({"bytes"});
  EXPECT_EQ(stream->OnReceiveDirect(*chain), AW_ERROR_FAILURE);
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
}

TEST_F(CZARNIPCStreamBaseReceive, DirectTeardownDropsBothBuffersButLosesNoAcceptedByte) {
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
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{0});
}

TEST_F(CZARNIPCStreamBaseReceive, DirectBlockIsHandledWithoutATransportToo) {
  RecordingStream alone;
  auto chain = Chain({"one;"});
  EXPECT_EQ(alone.OnReceiveDirect(*chain), AW_OK);
  EXPECT_EQ(alone.frames, Strings{"one"});
}

}  // namespace
}  // namespace zarn::test
