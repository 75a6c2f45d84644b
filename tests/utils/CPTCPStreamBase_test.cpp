// CPTCPStreamBase_test.cpp - attaching, sending, ending over scripted transports. Receiving is in
// StreamBlockReceive_test.cpp.
#include "zarn/utils/CPTCPStreamBase.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <type_traits>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingBlocks.h"
#include "StoredSize.h"
#include "VirtualSlot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using Parameter = ptcp::CAWPseudoTCPTransportParameter;
using Strings = std::vector<std::string>;

class CPTCPStreamBaseTest : public ::testing::Test, public StreamFixture<OverPtcp> {
 protected:
  Transport transport = Attach();

  AWResult SendBlock(CAWMessageBlock& block) { return stream->SendMessage(block, nullptr); }
  // Leaves `text` in the send queue.
  void Queue(const std::string& text) {
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
    EXPECT_EQ(Send(text), AW_OK);
  }
};

// --- attaching ---

TEST_F(CPTCPStreamBaseTest, NewOneHasNoAddress) {
  RecordingPtcpStream fresh;
  EXPECT_EQ(*fresh.GetPeerAddr(), CAWInetAddr());
  EXPECT_EQ(*fresh.GetLocalAddr(), CAWInetAddr());
}

TEST_F(CPTCPStreamBaseTest, NullHandleIsRefusedAndChangesNothing) {
  log.clear();
  Handle none;
  EXPECT_EQ(stream->SetTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(Send("still here;"), AW_OK);
}

TEST_F(CPTCPStreamBaseTest, HandleReplacesTheHeldOneIsOpenedAndAskedForBothAddresses) {
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
}

// Whether a stream is closed shows in what becomes of bytes that it is given.
TEST_F(CPTCPStreamBaseTest, ClosedIsClearedOnlyAfterTheOpenSucceeded) {
  stream->Disconnect(0);
  auto refused = NewTransport();
  refused->openResult = EMFILE;
  Handle handle(refused.Get());
  EXPECT_EQ(stream->SetTransportHandle(handle), AW_ERROR_FAILURE);
  EXPECT_TRUE(refused->optionsRead.empty());
  EXPECT_EQ(refused->GetReferences(), 3U);  // it stays held
  stream->OnReceive(*Chain({"one;"}), nullptr, nullptr);
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});

  auto fresh = Attach();
  fresh->Receive("two;");
  EXPECT_EQ(stream->frames.back(), "two");
  EXPECT_EQ(stream->upcalls.size(), 1U);
}

// --- ends ---

TEST_F(CPTCPStreamBaseTest, EndOfTheTransportIsOnlyReportedAndTheStreamIsNotMarkedClosed) {
  Queue("queued");
  transport->Receive("half");
  log.clear();
  transport->End(ECONNRESET);
  EXPECT_EQ(log, CallLog{"OnPeerDisconnect(" + std::to_string(ECONNRESET) + ")"});
  EXPECT_EQ(stream->GetCounters().lastDisconnectReason, ECONNRESET);
  EXPECT_EQ(transport->GetReferences(), 2U);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  stream->OnReceive(*Chain({"+rest;"}), nullptr, nullptr);
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
  EXPECT_EQ(stream->upcalls.size(), 1U);
}

TEST_F(CPTCPStreamBaseTest, DisconnectPassesItsReasonOnKeepsBothBuffersAndMakesNoUpcall) {
  Queue("queued");
  transport->Receive("half");
  log.clear();
  EXPECT_EQ(stream->Disconnect(42), AW_OK);
  EXPECT_EQ(log, CallLog{"transport.Disconnect(42)"});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  auto fresh = Attach();
  EXPECT_EQ(Send("+new"), AW_OK);
  EXPECT_EQ(fresh->wire, "queued+new");
  fresh->Receive("+rest;");
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
}

TEST_F(CPTCPStreamBaseTest, DisconnectMarksItClosed) {
  stream->Disconnect(0);
  stream->OnReceive(*Chain({"one;two;"}), nullptr, nullptr);
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CPTCPStreamBaseTest, DestructorDisconnectsWithReasonZeroAndLosesNoAcceptedByte) {
  Queue("goodbye;");
  stream.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->lingerData, "goodbye;");
  EXPECT_EQ(transport->GetReferences(), 1U);
}

// --- sending ---

TEST_F(CPTCPStreamBaseTest, SendWithoutATransportAnswers10001) {
  stream->Disconnect(0);
  auto block = Chain({"bytes"});
  EXPECT_EQ(SendBlock(*block), 10001U);
  EXPECT_EQ(block->GetChainedLength(), 5U);
}

// A transport that says so and does not advance shows who advances.
TEST_F(CPTCPStreamBaseTest, WholeSendIsNotAdvancedByTheStream) {
  transport->AnswerNext(AW_OK, 2);
  auto block = Chain({"bytes"});
  EXPECT_EQ(SendBlock(*block), AW_OK);
  EXPECT_EQ(block->FlattenChained(), "tes");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CPTCPStreamBaseTest, PartialSendQueuesTheRestAndAdvancesTheWholeChain) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  auto block = Chain({"one,", "two"});
  EXPECT_EQ(SendBlock(*block), AW_OK);
  EXPECT_EQ(block->GetChainedLength(), 0U);
  EXPECT_EQ(transport->wire, "one,t");
  EXPECT_EQ(stream->GetSendQueueLength(), 2U);
}

TEST_F(CPTCPStreamBaseTest, SendBehindAQueueOffersAllOfItAndKeepsWhatIsNotTaken) {
  Queue("one,");
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  auto block = Chain({"two"});
  EXPECT_EQ(SendBlock(*block), AW_OK);
  EXPECT_EQ(block->GetChainedLength(), 0U);
  EXPECT_EQ(transport->offered.back(), 7U);
  EXPECT_EQ(transport->wire, "one,t");
  EXPECT_EQ(stream->GetSendQueueLength(), 2U);
  EXPECT_EQ(Send(",three"), AW_OK);
  EXPECT_EQ(transport->wire, "one,two,three");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CPTCPStreamBaseTest, OtherResultsAreReturnedAsTheyAre) {
  transport->AnswerNext(EPIPE, 0);
  auto block = Chain({"one"});
  EXPECT_EQ(SendBlock(*block), static_cast<AWResult>(EPIPE));
  EXPECT_EQ(block->GetChainedLength(), 3U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CPTCPStreamBaseTest, OtherResultsBehindAQueueAreReturnedAndTheMessageIsQueued) {
  Queue("one,");
  transport->AnswerNext(EPIPE, 0);
  auto block = Chain({"two"});
  EXPECT_EQ(SendBlock(*block), static_cast<AWResult>(EPIPE));
  EXPECT_EQ(block->GetChainedLength(), 3U);
  EXPECT_EQ(stream->GetSendQueueLength(), 7U);
}

TEST_F(CPTCPStreamBaseTest, ParameterGoesAlongDirectlyAndWithAQueueButNotWithOnSend) {
  Parameter parameter;
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(stream->SendMessage(*Chain({"one"}), &parameter), AW_OK);
  EXPECT_EQ(stream->SendMessage(*Chain({"two"}), &parameter), AW_OK);
  transport->ReadyToSend();
  EXPECT_EQ(transport->sendParameters, (std::vector<Parameter*>{&parameter, &parameter, nullptr}));
}

// --- when there is room again ---

TEST_F(CPTCPStreamBaseTest, WhatWaitsIsOfferedTwiceAndTheQueueIsEmptyThen) {
  Queue("pending;");
  transport->ReadyToSend();
  EXPECT_EQ(transport->offered.back(), 16U);
  EXPECT_EQ(transport->wire, "pending;pending;");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CPTCPStreamBaseTest, WhatIsOfferedTwiceIsCountedOnce) {
  Queue("one;");
  Queue("two;");
  transport->ReadyToSend();
  EXPECT_EQ(stream->GetCounters().messagesSent, 2U);
  EXPECT_EQ(stream->GetCounters().bytesSent, 8U);
}

TEST_F(CPTCPStreamBaseTest, WhatTheTransportDoesNotTakeThenIsDropped) {
  for (const std::size_t taken :
       {std::size_t{0}, std::size_t{3}, std::size_t{8}, std::size_t{11}}) {
    transport->wire.clear();
    Queue("pending;");
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, taken);
    transport->ReadyToSend();
    EXPECT_EQ(transport->wire, std::string("pending;pending;").substr(0, taken));
    EXPECT_EQ(stream->GetSendQueueLength(), 0U);
    EXPECT_EQ(Send("next;"), AW_OK);
    EXPECT_EQ(transport->offered.back(), 5U);
  }
}

TEST_F(CPTCPStreamBaseTest, LongQueuesOfSharedBytesAreOfferedTwiceToo) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  const std::string text(100000, 'x');
  auto block = Chain({text, text});
  EXPECT_EQ(SendBlock(*block), AW_OK);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 150000);
  transport->ReadyToSend();
  EXPECT_EQ(transport->offered.back(), 400000U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  EXPECT_FALSE(block->IsShared());
}

TEST_F(CPTCPStreamBaseTest, ErrorThenLeavesTheDoubledQueue) {
  Queue("pending;");
  transport->AnswerNext(EPIPE, 0);
  transport->ReadyToSend();
  EXPECT_EQ(stream->GetSendQueueLength(), 16U);
}

TEST_F(CPTCPStreamBaseTest, NothingIsOfferedWhenNothingWaits) {
  transport->ReadyToSend();
  EXPECT_TRUE(transport->offered.empty());
}

class OverridingSend final : public RecordingPtcpStream {
 public:
  AWResult SendMessage(CAWMessageBlock& data, Parameter* parameter) override {
    seen.push_back(data.FlattenChained());
    return RecordingPtcpStream::SendMessage(data, parameter);
  }
  Strings seen;
};

TEST_F(CPTCPStreamBaseTest, RoomGoesThroughTheVirtualSendMessageWithTheQueueAsTheMessage) {
  OverridingSend overriding;
  auto other = NewTransport();
  Handle handle(other.Get());
  overriding.SetTransportHandle(handle);
  other->AnswerNext(AW_ERROR_PARTIAL_DATA, 1);
  overriding.SendMessage(*Chain({"one"}), nullptr);
  other->ReadyToSend();
  EXPECT_EQ(overriding.seen, (Strings{"one", "ne"}));
  EXPECT_EQ(other->wire, "onene");
}

// --- accessors, slots ---

TEST_F(CPTCPStreamBaseTest, HandlerThatTakesSeveralFramesInOneCallCountsTheOthersItself) {
  stream->onMessage = [&](CAWMessageBlock& data) {
    stream->CountFurtherMessages(2);
    return static_cast<std::uint16_t>(data.GetChainedLength());
  };
  transport->Receive("one;two;three;");
  EXPECT_EQ(stream->GetCounters().messagesReceived, 3U);
}

TEST_F(CPTCPStreamBaseTest, BufferSizesStartAt1048576AndAreStoredAsTheyAre) {
  const auto setReceive = [&](std::uint32_t size) { stream->SetRcvBufferSize(size); };
  const StoredSize received(*stream, setReceive, 1048576);
  setReceive(5000000);
  EXPECT_EQ(received.Get(), 5000000U);
  const auto setSend = [&](std::uint32_t size) { stream->SetSendBufferSize(size); };
  const StoredSize sent(*stream, setSend, 1048576);
  setSend(5000000);
  EXPECT_EQ(sent.Get(), 5000000U);
}

TEST(VirtualSlots, PseudoTcpStreamStartsWithTheSinksSlotsAndAddsItsOwn) {
  using Stream = utils::CPTCPStreamBase;
  using ptcp::IAWPseudoTCPTransport;
  using Sink = ptcp::IAWPseudoTCPTransportSink;
  EXPECT_TRUE(std::is_abstract_v<Stream>);
  EXPECT_EQ(VirtualSlot(&Sink::OnReceive), 0);
  EXPECT_EQ(VirtualSlot(&Sink::OnSend), 1);
  EXPECT_EQ(VirtualSlot(&Sink::OnDisconnect), 2);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(CAWMessageBlock&, IAWPseudoTCPTransport*, Parameter*)>(
                &Stream::OnReceive),
            0);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(IAWPseudoTCPTransport*, Parameter*)>(&Stream::OnSend), 1);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long, IAWPseudoTCPTransport*)>(&Stream::OnDisconnect), 2);
  EXPECT_EQ(VirtualSlot(&Stream::SendMessage), 5);  // 3 and 4 are the destructor pair
  EXPECT_EQ(VirtualSlot(&Stream::HandleMessage), 6);
  EXPECT_EQ(VirtualSlot(&Stream::OnPeerDisconnect), 7);
  EXPECT_EQ(VirtualSlot(&Stream::SetTransportHandle), 8);
  EXPECT_EQ(VirtualSlot(&Stream::Disconnect), 9);
  EXPECT_EQ(VirtualSlot(&Stream::SetRcvBufferSize), -1);
  EXPECT_EQ(VirtualSlot(&Stream::GetPeerIP), -1);
}

}  // namespace
}  // namespace zarn::test
