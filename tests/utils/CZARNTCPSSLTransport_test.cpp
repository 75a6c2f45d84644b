// CZARNTCPSSLTransport_test.cpp - attaching, receiving by blocks, sending and ending over scripted
// TLS transports.
#include "zarn/utils/CZARNTCPSSLTransport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Blocks.h"
#include "FakeTls.h"
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
using RecordingTlsStream = BlockRecorder<utils::CZARNTCPSSLTransport>;
using Handle = keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>;

class CZARNTCPSSLTransportTest : public ::testing::Test {
 protected:
  using Transport = keelbase::CAWAutoPtr<FakeTlsTransport>;

  CZARNTCPSSLTransportTest() { stream->destroyed = &destroyed; }

  Transport NewTransport() { return Transport(new FakeTlsTransport(&log)); }
  Transport Attach() {
    Transport fresh = NewTransport();
    Handle handle(fresh.Get());
    stream->SetSSLTransportHandle(handle);
    return fresh;
  }
  keelbase::AWResult Send(const std::string& bytes) {
    return stream->SendSSLMessage(*Chain({bytes}));
  }
  void AnswerAlways(std::uint16_t count) {
    stream->onMessage = [count](CAWMessageBlock&) { return count; };
  }
  void ExpectEmptyBuffers() {
    EXPECT_EQ(stream->GetSendQueueLength(), 0U);
    auto fresh = Attach();
    stream->onMessage = nullptr;
    stream->frames.clear();
    fresh->Receive("whole;");
    EXPECT_EQ(stream->frames, Strings{"whole"});
  }

  CallLog log;
  bool destroyed = false;
  std::unique_ptr<RecordingTlsStream> stream = std::make_unique<RecordingTlsStream>(&log);
  Transport transport = Attach();
};

// --- attaching ---

TEST_F(CZARNTCPSSLTransportTest, NullHandleIsRefusedAndChangesNothing) {
  log.clear();
  Handle none;
  EXPECT_EQ(stream->SetSSLTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(Send("still here;"), AW_OK);
}

TEST_F(CZARNTCPSSLTransportTest, HandleReplacesTheHeldOneIsOpenedAndAskedForBothAddresses) {
  auto fresh = NewTransport();
  fresh->peer = CAWInetAddr("10.0.0.1", 1000);
  fresh->local = CAWInetAddr("10.0.0.2", 2000);
  Handle handle(fresh.Get());
  log.clear();
  EXPECT_EQ(stream->SetSSLTransportHandle(handle), AW_OK);
  EXPECT_EQ(log, (CallLog{"transport.Disconnect(0)", "transport.OpenWithSink"}));
  EXPECT_EQ(fresh->optionsRead, (std::vector<int>{105, 104}));
  EXPECT_EQ(*stream->GetPeerAddr(), fresh->peer);
  EXPECT_EQ(*stream->GetLocalAddr(), fresh->local);
  EXPECT_EQ(stream->GetPeerPort(), 1000);
  EXPECT_EQ(stream->GetLocalPort(), 2000);
}

TEST_F(CZARNTCPSSLTransportTest, ClosedIsClearedBeforeTheOpenSoAFailedOpenLeavesItOpen) {
  stream->Disconnect(0);
  auto fresh = NewTransport();
  fresh->openResult = EMFILE;
  Handle handle(fresh.Get());
  EXPECT_EQ(stream->SetSSLTransportHandle(handle), AW_ERROR_FAILURE);
  EXPECT_FALSE(stream->IsClose());
  EXPECT_EQ(fresh->GetReferences(), 3U);  // it stays held
}

// --- receiving with nothing held back ---

TEST_F(CZARNTCPSSLTransportTest, FrameAndAHalfIsHandledOnceAndTheHalfIsKept) {
  transport->Receive("one;tw");
  EXPECT_EQ(stream->frames, Strings{"one"});
  transport->Receive("o;");
  EXPECT_EQ(stream->frames, (Strings{"one", "two"}));
}

TEST_F(CZARNTCPSSLTransportTest, NoStaleCopyIsLeftBehindSeveralFrames) {
  transport->Receive("one;two;");
  transport->Receive("three;");
  EXPECT_EQ(stream->frames, (Strings{"one", "two", "three"}));
  EXPECT_EQ(stream->views.back(), "three;");
}

TEST_F(CZARNTCPSSLTransportTest, BlockIsAdvancedOverWhatWasHandledAndNotOverTheRestThatIsKept) {
  auto block = Chain({"one;ha"});
  transport->Receive(*block);
  EXPECT_EQ(block->FlattenChained(), "ha");
}

TEST_F(CZARNTCPSSLTransportTest, EmptyBlockIsOfferedToo) {
  transport->Receive("");
  EXPECT_EQ(stream->views, Strings{""});
  EXPECT_FALSE(stream->IsClose());
}

TEST_F(CZARNTCPSSLTransportTest, TooLongAnswerOnTheFirstBytesClosesAndReports10001) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("queued");
  AnswerAlways(6);
  log.clear();
  transport->Receive("bytes");
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(10001)"});
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->lingerData, "queued");
  EXPECT_EQ(transport->GetReferences(), 1U);
  ExpectEmptyBuffers();
}

TEST_F(CZARNTCPSSLTransportTest, TooLongAnswerAfterFramesOfTheSameEventClosesToo) {
  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    return stream->views.size() == 1 ? 4 : 100;
  };
  transport->Receive("one;two;");
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(10001)"});
}

TEST_F(CZARNTCPSSLTransportTest, HandlerThatDisconnectsIsAnsweredBy10001) {
  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    stream->Disconnect(7);
    return 0;
  };
  transport->Receive("one;two;");
  EXPECT_EQ(stream->views.size(), 1U);
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(10001)"});
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
}

// --- receiving behind what was held back ---

TEST_F(CZARNTCPSSLTransportTest, BlockIsAdvancedOverItsWholeLengthBehindHeldBytes) {
  transport->Receive("ha");
  auto block = Chain({"lf;two;th"});
  transport->Receive(*block);
  EXPECT_EQ(block->GetChainedLength(), 0U);
  EXPECT_EQ(stream->frames, (Strings{"half", "two"}));
  transport->Receive("ree;");
  EXPECT_EQ(stream->frames, (Strings{"half", "two", "three"}));
}

TEST_F(CZARNTCPSSLTransportTest, TooLongAnswerBehindHeldBytesIsIgnoredAndTheBytesStay) {
  transport->Receive("ha");
  AnswerAlways(100);
  log.clear();
  transport->Receive("lf");
  EXPECT_FALSE(stream->IsClose());
  EXPECT_TRUE(log.empty());
  stream->onMessage = nullptr;
  transport->Receive(";");
  EXPECT_EQ(stream->views.back(), "half;");
  EXPECT_EQ(stream->frames, Strings{"half"});
}

TEST_F(CZARNTCPSSLTransportTest, FramesBeforeAnIgnoredAnswerAreGone) {
  transport->Receive("ha");
  stream->onMessage = [&](CAWMessageBlock& data) -> std::uint16_t {
    return data.FlattenChained() == "half;two;" ? 5 : 100;
  };
  transport->Receive("lf;two;");
  stream->onMessage = nullptr;
  transport->Receive("x");
  EXPECT_EQ(stream->frames, Strings{"two"});
}

TEST_F(CZARNTCPSSLTransportTest, HandlerThatDisconnectsBehindHeldBytesIsAnsweredBy10001) {
  transport->Receive("ha");
  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    stream->Disconnect(0);
    return 100;
  };
  transport->Receive("lf;");
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(10001)"});
  ExpectEmptyBuffers();
}

TEST_F(CZARNTCPSSLTransportTest, ReadingStopsAboveTheLimitAndGoesOnBelowIt) {
  stream->SetReceiveLimit(10);
  transport->Receive("0123456789");
  EXPECT_FALSE(transport->IsReadingStopped());
  transport->Receive("a");
  EXPECT_TRUE(transport->IsReadingStopped());
  transport->Receive(";");
  EXPECT_FALSE(transport->IsReadingStopped());
}

TEST_F(CZARNTCPSSLTransportTest, BytesOfAnyTransportAreTaken) {
  auto other = NewTransport();
  stream->OnSSLDataReceive(*Chain({"one;"}), other.Get());
  EXPECT_EQ(stream->frames, Strings{"one"});
}

TEST_F(CZARNTCPSSLTransportTest, HandlerMayReplaceTheConnectionOrDeleteTheStream) {
  Transport fresh;
  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    fresh = Attach();
    return 100;
  };
  transport->Receive("one;");
  EXPECT_TRUE(fresh->disconnects.empty());
  EXPECT_TRUE(stream->upcalls.empty());
  stream->onMessage = [&](CAWMessageBlock&) -> std::uint16_t {
    stream.reset();
    return 100;
  };
  fresh->Receive("two;");
  EXPECT_TRUE(destroyed);
}

class OverridingDisconnect final : public RecordingTlsStream {
 public:
  using RecordingTlsStream::RecordingTlsStream;
  void OnSSLDisconnect(long reason, sslutils::IAWSSLTransport* transport) override {
    heard.push_back(reason);
    from = transport;
  }
  std::vector<long> heard;
  sslutils::IAWSSLTransport* from = nullptr;
};

TEST_F(CZARNTCPSSLTransportTest, TeardownGoesThroughTheVirtualOnSSLDisconnect) {
  OverridingDisconnect overriding;
  auto other = NewTransport();
  Handle handle(other.Get());
  overriding.SetSSLTransportHandle(handle);
  overriding.onMessage = [](CAWMessageBlock&) -> std::uint16_t { return 100; };
  other->Receive("x");
  EXPECT_EQ(overriding.heard, std::vector<long>{10001});
  EXPECT_EQ(overriding.from, other.Get());
  EXPECT_TRUE(overriding.upcalls.empty());
  EXPECT_TRUE(other->disconnects.empty());
}

// --- ends ---

TEST_F(CZARNTCPSSLTransportTest, EndDisconnectsDropsBothBuffersAndDoesNotMarkItClosed) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("queued");
  transport->Receive("half");
  transport->End(ECONNRESET);
  EXPECT_FALSE(stream->IsClose());
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(" + std::to_string(ECONNRESET) + ")"});
  EXPECT_EQ(Send("x"), AW_ERROR_FAILURE);
  ExpectEmptyBuffers();
}

TEST_F(CZARNTCPSSLTransportTest, DisconnectDoesNotPassItsReasonOnAndMakesNoUpcall) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("queued");
  transport->Receive("half");
  EXPECT_EQ(stream->Disconnect(42), AW_OK);
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->lingerData, "queued");
  EXPECT_TRUE(stream->IsClose());
  EXPECT_TRUE(stream->upcalls.empty());
  ExpectEmptyBuffers();
}

TEST_F(CZARNTCPSSLTransportTest, DestructorDisconnectsWithReasonZeroAndLosesNoAcceptedByte) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("goodbye;");
  stream.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->lingerData, "goodbye;");
}

// --- sending ---

TEST_F(CZARNTCPSSLTransportTest, SendWithoutATransportAnswers10001) {
  stream->Disconnect(0);
  EXPECT_EQ(Send("bytes"), 10001U);
}

TEST_F(CZARNTCPSSLTransportTest, DirectSendGoesWithAZeroParameterAndAQueuedOneWithNone) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(Send("one"), AW_OK);
  ASSERT_EQ(transport->parametersSeen.size(), 1U);
  EXPECT_EQ(transport->parametersSeen[0].reserved64, 0U);
  EXPECT_EQ(transport->parametersSeen[0].reserved32, 0U);
  EXPECT_EQ(Send("two"), AW_OK);
  EXPECT_EQ(transport->parametersSeen.size(), 1U);
  EXPECT_EQ(transport->wire, "onetwo");
}

TEST_F(CZARNTCPSSLTransportTest, PartialSendQueuesTheRestAndOnSSLDataSendWritesIt) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(Send("one"), AW_OK);
  EXPECT_EQ(Send("two"), AW_OK);
  EXPECT_EQ(stream->GetSendQueueLength(), 4U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "onetwo");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNTCPSSLTransportTest, BlockIsNotAdvancedOverWhatWasQueued) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 1);
  auto first = Chain({"one"});
  EXPECT_EQ(stream->SendSSLMessage(*first), AW_OK);
  EXPECT_EQ(first->FlattenChained(), "ne");  // the transport itself has taken one byte
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  auto second = Chain({"two"});
  EXPECT_EQ(stream->SendSSLMessage(*second), AW_OK);
  EXPECT_EQ(second->FlattenChained(), "two");
}

TEST_F(CZARNTCPSSLTransportTest, AnyErrorOfTheTransportAnswers10001) {
  transport->AnswerNext(EPIPE, 0);
  EXPECT_EQ(Send("one"), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(Send("queued"), AW_OK);
  transport->AnswerNext(EPIPE, 0);
  EXPECT_EQ(Send("behind"), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->GetSendQueueLength(), 12U);
}

// --- OnReceiveDirect ---

TEST_F(CZARNTCPSSLTransportTest, DirectHandlerGetsTheSameBlockUntilItIsAnsweredFor) {
  auto block = Chain({"one;two;"});
  EXPECT_EQ(stream->OnReceiveDirect(*block), AW_OK);
  EXPECT_EQ(stream->views, (Strings{"one;two;", "one;two;"}));
  EXPECT_EQ(block->GetChainedLength(), 0U);
}

TEST_F(CZARNTCPSSLTransportTest, DirectCountBeyondTheBytesIsTracedAndReportsZero) {
  TraceLines trace;
  AnswerAlways(6);
  EXPECT_EQ(stream->OnReceiveDirect(*Chain({"bytes"})), AW_ERROR_FAILURE);
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].text.find("CAWTCPSessionBase::OnReceiveDirect handlemessage return "
                               "size=6>remainsize=5 this="),
            0U);
  EXPECT_TRUE(stream->IsClose());
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
}

// --- accessors, slots ---

TEST_F(CZARNTCPSSLTransportTest, BufferSizesStartAt1048576AndAreStoredAsTheyAre) {
  const auto setReceive = [&](std::uint32_t size) { stream->SetRcvBufferSize(size); };
  const StoredSize received(*stream, setReceive, 1048576);
  setReceive(5000000);
  EXPECT_EQ(received.Get(), 5000000U);
  const auto setSend = [&](std::uint32_t size) { stream->SetSendBufferSize(size); };
  const StoredSize sent(*stream, setSend, 1048576);
  setSend(5000000);
  EXPECT_EQ(sent.Get(), 5000000U);
}

TEST(VirtualSlots, TlsTransportStreamStartsWithTheSinksSlotsAndAddsItsOwn) {
  using Stream = utils::CZARNTCPSSLTransport;
  using sslutils::IAWSSLTransport;
  EXPECT_EQ(
      VirtualSlot<void (Stream::*)(CAWMessageBlock&, IAWSSLTransport*)>(&Stream::OnSSLDataReceive),
      0);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(long, IAWSSLTransport*)>(&Stream::OnSSLDisconnect), 1);
  EXPECT_EQ(VirtualSlot<void (Stream::*)(IAWSSLTransport*)>(&Stream::OnSSLDataSend), 2);
  EXPECT_EQ(VirtualSlot(&Stream::SendSSLMessage), 5);  // 3 and 4 are the destructor pair
  EXPECT_EQ(VirtualSlot(&Stream::HandleMessage), 6);
  EXPECT_EQ(VirtualSlot(&Stream::OnPeerDisconnect), 7);
  EXPECT_EQ(VirtualSlot(&Stream::SetSSLTransportHandle), 8);
  EXPECT_EQ(VirtualSlot(&Stream::Disconnect), 9);
  EXPECT_EQ(VirtualSlot(&Stream::OnReceiveDirect), -1);
  EXPECT_EQ(VirtualSlot(&Stream::IsClose), -1);
}

}  // namespace
}  // namespace zarn::test
