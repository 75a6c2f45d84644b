// CZARNTCPTransport_test.cpp - attaching, ending, sending and direct receiving over scripted
// transports. What it shares with other streams is in StreamBlockReceive_test.cpp and
// StreamAdvancingSend_test.cpp.
#include "zarn/utils/CZARNTCPTransport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingBlocks.h"
#include "StoredSize.h"
#include "TraceLines.h"
#include "VirtualSlot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNTCPTransportTest : public ::testing::Test, public StreamFixture<OverTcpTransport> {
 protected:
  Transport transport = Attach();

  void AnswerAlways(std::uint16_t count) {
    stream->onMessage = [count](CAWMessageBlock&) { return count; };
  }
};

TEST_F(CZARNTCPTransportTest, BufferSizesStartAt1048576AndAreStoredAsTheyAre) {
  const auto setReceive = [&](std::uint32_t size) { stream->SetRcvBufferSize(size); };
  const StoredSize received(*stream, setReceive, 1048576);
  const auto setSend = [&](std::uint32_t size) { stream->SetSendBufferSize(size); };
  const StoredSize sent(*stream, setSend, 1048576);
  for (const std::uint32_t size : {0U, 65536U, 0xFFFFFFFFU}) {
    setReceive(size);
    EXPECT_EQ(received.Get(), size);
    setSend(size);
    EXPECT_EQ(sent.Get(), size);
  }
}

// --- attaching ---

TEST_F(CZARNTCPTransportTest, NewOneIsOpenAndHasNoAddress) {
  RecordingTcpTransport fresh;
  EXPECT_FALSE(fresh.IsClose());
  EXPECT_EQ(*fresh.GetPeerAddr(), CAWInetAddr());
  EXPECT_EQ(*fresh.GetLocalAddr(), CAWInetAddr());
}

TEST_F(CZARNTCPTransportTest, NullHandleIsRefusedAndChangesNothing) {
  log.clear();
  Handle none;
  EXPECT_EQ(stream->SetTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(Send("still here;"), AW_OK);
  stream->Disconnect(0);
  EXPECT_EQ(stream->SetTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(stream->IsClose());
}

TEST_F(CZARNTCPTransportTest, HandleReplacesTheHeldOneIsOpenedAndAskedForBothAddresses) {
  auto fresh = NewTransport();
  fresh->peer = CAWInetAddr("10.0.0.1", 1000);
  fresh->local = CAWInetAddr("10.0.0.2", 2000);
  Handle handle(fresh.Get());
  log.clear();
  EXPECT_EQ(stream->SetTransportHandle(handle), AW_OK);
  EXPECT_EQ(log, (CallLog{"transport.Disconnect(0)", "transport.OpenWithSink"}));
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(fresh->optionsRead, (std::vector<int>{105, 104}));
  std::string ip;
  stream->GetPeerIP(ip);
  EXPECT_EQ(ip, "10.0.0.1");
  stream->GetLocalIP(ip);
  EXPECT_EQ(ip, "10.0.0.2");
  EXPECT_EQ(stream->GetPeerPort(), 1000);
  EXPECT_EQ(stream->GetLocalPort(), 2000);
  EXPECT_EQ(*stream->GetPeerAddr(), fresh->peer);
  EXPECT_EQ(*stream->GetLocalAddr(), fresh->local);
}

TEST_F(CZARNTCPTransportTest, ClosedIsClearedBeforeTheOpenSoAFailedOpenLeavesItOpen) {
  stream->Disconnect(0);
  auto fresh = NewTransport();
  fresh->openResult = EMFILE;
  Handle handle(fresh.Get());
  EXPECT_EQ(stream->SetTransportHandle(handle), AW_ERROR_FAILURE);
  EXPECT_FALSE(stream->IsClose());
  EXPECT_TRUE(fresh->optionsRead.empty());
  EXPECT_EQ(fresh->GetReferences(), 3U);  // it stays held
}

// --- receiving: see StreamBlockReceive_test.cpp ---

TEST_F(CZARNTCPTransportTest, CountBeyondTheBytesClosesIt) {
  AnswerAlways(7);
  transport->Receive("sixsix");
  EXPECT_TRUE(stream->IsClose());
}

// --- ends ---

TEST_F(CZARNTCPTransportTest, EndOfTheTransportKeepsItAndBothBuffers) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("queued");
  transport->Receive("half");
  log.clear();
  transport->End(ECONNRESET);
  EXPECT_EQ(log, CallLog{"OnPeerDisconnect(" + std::to_string(ECONNRESET) + ")"});
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(transport->GetReferences(), 2U);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);

  auto fresh = Attach();
  EXPECT_EQ(Send("+new"), AW_OK);
  EXPECT_EQ(fresh->wire, "queued+new");
  fresh->Receive("+rest;");
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
}

TEST_F(CZARNTCPTransportTest, DisconnectPassesItsReasonOnDropsBothBuffersAndMakesNoUpcall) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("queued");
  transport->Receive("half");
  log.clear();
  EXPECT_EQ(stream->Disconnect(42), AW_OK);
  EXPECT_EQ(log, (CallLog{"transport.LingerData", "transport.Disconnect(42)"}));
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(transport->GetReferences(), 1U);
  auto fresh = Attach();
  Send("new");
  EXPECT_EQ(fresh->wire, "new");
  fresh->Receive("whole;");
  EXPECT_EQ(stream->frames, Strings{"whole"});
}

TEST_F(CZARNTCPTransportTest, DestructorDisconnectsWithReasonZeroAndLosesNoAcceptedByte) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("goodbye;");
  stream.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->lingerData, "goodbye;");
  EXPECT_EQ(transport->GetReferences(), 1U);
}

// --- sending ---

TEST_F(CZARNTCPTransportTest, SendWithoutATransportAnswers10001) {
  stream->Disconnect(0);
  auto block = Chain({"bytes"});
  EXPECT_EQ(stream->SendMsg(*block, nullptr), 10001U);
  EXPECT_EQ(block->GetChainedLength(), 5U);
}

TEST_F(CZARNTCPTransportTest, ParameterGoesAlongDirectlyAndWithAQueueButNotWithOnSend) {
  wface::CAWTransportParameter parameter;
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(stream->SendMsg(*Chain({"one"}), &parameter), AW_OK);
  EXPECT_EQ(stream->SendMsg(*Chain({"two"}), &parameter), AW_OK);
  transport->ReadyToSend();
  EXPECT_EQ(transport->sendParameters,
            (std::vector<wface::CAWTransportParameter*>{&parameter, &parameter, nullptr}));
  EXPECT_EQ(transport->wire, "onetwo");
}

// --- OnReceiveDirect ---

TEST_F(CZARNTCPTransportTest, DirectHandlerGetsTheCallersOwnBlock) {
  auto block = Chain({"one;"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_OK);
  EXPECT_EQ(stream->lastBlock, block.get());
  EXPECT_EQ(block->GetChainedLength(), 0U);
}

TEST_F(CZARNTCPTransportTest, DirectBlockOfSeveralFramesOffersTheFirstOneRepeatedly) {
  auto block = Chain({"one;two;x"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_ERROR_FAILURE);  // the third time 4 is too much
  EXPECT_EQ(stream->views, (Strings{"one;two;x", "one;two;x", "one;two;x"}));
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});

  Attach();
  stream->views.clear();
  auto even = Chain({"one;two;"});
  EXPECT_EQ(stream->OnReceiveDirect(*even), AW_OK);
  EXPECT_EQ(stream->views, (Strings{"one;two;", "one;two;"}));
  EXPECT_EQ(even->GetChainedLength(), 0U);
}

TEST_F(CZARNTCPTransportTest, DirectHandlerMayAdvanceTheBlockItself) {
  stream->onMessage = [&](CAWMessageBlock& data) {
    const std::uint16_t length = stream->TakeFrame(data);
    data.AdvanceReadPtr(length);
    return length;
  };
  auto block = Chain({"one;two;rest of it"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_OK);
  EXPECT_EQ(stream->frames, (Strings{"one", "two"}));
  EXPECT_EQ(block->FlattenChained(), "rest of it");
}

TEST_F(CZARNTCPTransportTest, DirectBlockIsMeasuredByItsFirstSegmentOnly) {
  AnswerAlways(4);
  auto block = Chain({"one;", "two;"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_OK);
  EXPECT_EQ(stream->views.size(), 1U);
  EXPECT_EQ(block->FlattenChained(), "two;");
}

TEST_F(CZARNTCPTransportTest, DirectBlockWithAnEmptyFirstSegmentIsNothingUnlessClosed) {
  auto block = Chain({"", "one;"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_OK);
  EXPECT_TRUE(stream->views.empty());
  stream->Disconnect(0);
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CZARNTCPTransportTest, DirectCountBeyondTheBytesIsTracedAndTearsDown) {
  TraceLines trace;
  AnswerAlways(8);
  log.clear();
  auto block = Chain({"bytes", "more"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_ERROR_FAILURE);
  EXPECT_EQ(log, (CallLog{"transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  char expected[200];
  std::snprintf(
      expected, sizeof expected,
      "CAWTCPSessionBase::OnReceiveDirect handlemessage return size=8>remainsize=5 this=%p",
      static_cast<const void*>(stream.get()));
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 0U);
  EXPECT_EQ(lines[0].text, expected);
}

TEST_F(CZARNTCPTransportTest, DirectHandlerMayDisconnectReplaceOrDelete) {
  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    stream->Disconnect(0);
    return 4;
  };
  EXPECT_EQ(stream->OnReceiveDirect(*Chain({"one;two;"})), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});

  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    transport = Attach();
    return 4;
  };
  auto block = Chain({"one;two;"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_ERROR_FAILURE);
  EXPECT_EQ(block->FlattenChained(), "two;");
  EXPECT_TRUE(transport->disconnects.empty());
  EXPECT_EQ(stream->GetCounters().messagesReceived, 2U);
  EXPECT_EQ(stream->GetCounters().bytesReceived, 8U);

  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    stream.reset();
    return 4;
  };
  EXPECT_EQ(stream->OnReceiveDirect(*Chain({"one;two;"})), AW_ERROR_FAILURE);
  EXPECT_TRUE(destroyed);
}

// --- counters, threads, slots ---

TEST_F(CZARNTCPTransportTest, CountsWhatItDid) {
  transport->Receive("one;two;ha");
  Send("answer");
  transport->End(ECONNRESET);
  const auto& counters = stream->GetCounters();
  EXPECT_EQ(counters.connects, 1U);
  EXPECT_EQ(counters.messagesReceived, 2U);
  EXPECT_EQ(counters.bytesReceived, 10U);
  EXPECT_EQ(counters.messagesSent, 1U);
  EXPECT_EQ(counters.bytesSent, 6U);
  EXPECT_EQ(counters.lastDisconnectReason, ECONNRESET);
}

#ifndef NDEBUG
using CZARNTCPTransportDeathTest = CZARNTCPTransportTest;

TEST_F(CZARNTCPTransportDeathTest, SendFromAnotherThreadStopsADebugBuildAndNamesTheOperation) {
  EXPECT_DEATH(std::thread([&] { Send("x;"); }).join(), "CZARNTCPTransport::SendMsg");
}
#endif

TEST(VirtualSlots, TcpTransportStreamStartsWithTheSinksSlotsAndAddsItsOwn) {
  using Stream = utils::CZARNTCPTransport;
  using wface::CAWTransportParameter;
  using wface::IAWTransport;
  EXPECT_EQ(VirtualSlot<void (Stream::*)(CAWMessageBlock&, IAWTransport*, CAWTransportParameter*)>(
                &Stream::OnReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(IAWTransport*, CAWTransportParameter*)>(&Stream::OnSend),
            1);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long, IAWTransport*)>(&Stream::OnDisconnect), 2);
  EXPECT_EQ(VirtualSlot(&Stream::SendMsg), 5);  // 3 and 4 are the destructor pair
  EXPECT_EQ(VirtualSlot(&Stream::HandleMessage), 6);
  EXPECT_EQ(VirtualSlot(&Stream::OnPeerDisconnect), 7);
  EXPECT_EQ(VirtualSlot(&Stream::SetTransportHandle), 8);
  EXPECT_EQ(VirtualSlot(&Stream::Disconnect), 9);
  EXPECT_EQ(VirtualSlot(&Stream::OnReceiveDirect), -1);
  EXPECT_EQ(VirtualSlot(&Stream::IsClose), -1);
}

}  // namespace
}  // namespace zarn::test
