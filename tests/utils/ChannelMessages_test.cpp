// ChannelMessages_test.cpp - what all channels have in common: the frame both ways, over a scripted
// transport. Every test runs for client and server and for each transport.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

template <class World>
struct ConnectedClient : ClientFixture<World> {
  using Rules = World;
  typename ClientFixture<World>::Transport transport = this->ConnectFully();
  auto& Channel() { return *this->client; }
};

template <class World>
struct OpenServer : ServerFixture<World> {
  using Rules = World;
  auto& Channel() { return *this->server; }
};

template <class Open>
class ChannelMessages : public ::testing::Test, public Open {
 protected:
  // Bytes of one block form send.
  AWResult SendBlock(std::uint16_t type, std::uint32_t tag, CAWMessageBlock& block) {
    return this->Channel().SendZARNMessage(type, tag, block);
  }
  AWResult SendText(const std::string& text) {
    return this->Channel().SendZARNMessage(1, 2, text.data(), text.size());
  }
  std::size_t Handle(const std::string& bytes) {
    return this->Channel().HandleMessage(bytes.data(), bytes.size());
  }
  // What is unread of a block of `length` bytes that was accepted.
  static std::size_t LeftOfSent(std::size_t length) {
    return Open::Rules::kAdvancesSentBlocks ? 0 : length;
  }
  // The line of a malformed frame, to the letter.
  static std::string Complaint(unsigned pduLength, unsigned dataSize) {
    return std::string(Open::Rules::kName) +
           "::HandleMessage, pdulen=" + std::to_string(pduLength) + ", datasize" +
           std::to_string(dataSize) + " fatal error";
  }
};

struct ChannelNames {
  template <class Open>
  static std::string GetName(int) {
    return Open::Rules::kName;
  }
};

using OverIpcChannels =
    ::testing::Types<ConnectedClient<IpcClientWorld>, OpenServer<IpcServerWorld>>;
using OverShmChannels =
    ::testing::Types<ConnectedClient<ShmClientWorld>, OpenServer<ShmServerWorld>>;
using AllChannels = ::testing::Types<ConnectedClient<IpcClientWorld>, OpenServer<IpcServerWorld>,
                                     ConnectedClient<ShmClientWorld>, OpenServer<ShmServerWorld>>;
TYPED_TEST_SUITE(ChannelMessages, AllChannels, ChannelNames);

// --- sending ---

TYPED_TEST(ChannelMessages, HeaderIsTwelveBytesBigEndian) {
  EXPECT_EQ(this->Channel().SendZARNMessage(0x0102, 0x03040506, "abc", 3), AW_OK);
  EXPECT_EQ(this->transport->wire, std::string("\x01\x02\x00\x0f\x03\x04\x05\x06\x00\x00\x00\x03"
                                               "abc",
                                               15));
}

TYPED_TEST(ChannelMessages, ExtremeTypeAndTagPassUnchanged) {
  this->Channel().SendZARNMessage(0xFFFF, 0xFFFFFFFF, "x", 1);
  EXPECT_EQ(this->transport->wire, Frame(0xFFFF, 0xFFFFFFFF, "x"));
}

TYPED_TEST(ChannelMessages, EmptyMessageIsAFrameOfTwelveBytes) {
  EXPECT_EQ(this->Channel().SendZARNMessage(5, 6, nullptr, 0), AW_OK);
  EXPECT_EQ(this->transport->wire, Header(5, 12, 6, 0));
}

TYPED_TEST(ChannelMessages, EmptyBlockIsAFrameOfTwelveBytes) {
  CAWMessageBlock empty(8);
  EXPECT_EQ(this->SendBlock(5, 6, empty), AW_OK);
  EXPECT_EQ(this->transport->wire, Header(5, 12, 6, 0));
  EXPECT_EQ(empty.GetNext(), nullptr);
}

TYPED_TEST(ChannelMessages, PayloadOf65523BytesIsTheLargest) {
  const std::string largest(65523, 'l');
  EXPECT_EQ(this->SendText(largest), AW_OK);
  EXPECT_TRUE(this->transport->wire == Frame(1, 2, largest));
  EXPECT_EQ(this->transport->wire.size(), 65535U);
}

TYPED_TEST(ChannelMessages, PayloadOf65524BytesAnswers10001AndSendsNothing) {
  const std::string tooLarge(65524, 'l');
  EXPECT_EQ(this->SendText(tooLarge), AW_ERROR_FAILURE);
  CAWMessageBlock block(tooLarge.data(), tooLarge.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(this->SendBlock(1, 2, block), AW_ERROR_FAILURE);
  EXPECT_EQ(block.GetLength(), 65524U);
  EXPECT_TRUE(this->transport->offered.empty());
}

TYPED_TEST(ChannelMessages, LengthNearTheEndOfItsTypeIsRefusedWithoutWrapping) {
  constexpr std::size_t kMaxLength = std::numeric_limits<std::size_t>::max();
  char byte = 'x';
  for (const std::size_t length : {kMaxLength, kMaxLength - 11, kMaxLength - 12, kMaxLength / 2,
                                   std::size_t{1} << 32, (std::size_t{1} << 32) - 12}) {
    EXPECT_EQ(this->Channel().SendZARNMessage(1, 2, &byte, length), AW_ERROR_FAILURE) << length;
  }
  EXPECT_TRUE(this->transport->offered.empty());
}

TYPED_TEST(ChannelMessages, HeaderAndPayloadGoInOneOfferWithoutACopy) {
  const std::string payload = "where it stands";
  this->SendText(payload);
  ASSERT_EQ(this->transport->offered.size(), 1U);
  ASSERT_EQ(this->transport->segments.size(), 2U);
  EXPECT_EQ(this->transport->segments[0].length, 12U);
  EXPECT_EQ(this->transport->segments[1].data, payload.data());
  EXPECT_EQ(this->transport->segments[1].length, payload.size());
}

TYPED_TEST(ChannelMessages, ChainOfBlocksIsOnePayload) {
  CAWMessageBlock block(8);
  block.Write("one,", 4);
  auto* second = new CAWMessageBlock(8);
  second->Write("two", 3);
  block.Append(second);
  EXPECT_EQ(this->SendBlock(1, 2, block), AW_OK);
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "one,two"));
  EXPECT_EQ(block.GetNext(), second);
  EXPECT_EQ(block.GetChainedLength(), this->LeftOfSent(7));
}

TYPED_TEST(ChannelMessages, BlockOnTheStackStaysTheCallersAfterASend) {
  {
    CAWMessageBlock block(8);
    block.Write("stack", 5);
    EXPECT_EQ(this->SendBlock(1, 2, block), AW_OK);
    EXPECT_EQ(block.GetNext(), nullptr);
    EXPECT_EQ(block.GetLength(), this->LeftOfSent(5));
    EXPECT_FALSE(block.IsShared());
  }
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "stack"));
}

TYPED_TEST(ChannelMessages, BlockOnTheStackStaysTheCallersAfterAPartialSend) {
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 14);
  {
    CAWMessageBlock block(8);
    block.Write("stack", 5);
    EXPECT_EQ(this->SendBlock(1, 2, block), AW_OK);
    EXPECT_EQ(block.GetNext(), nullptr);
    EXPECT_EQ(block.GetLength(), this->LeftOfSent(5));
  }
  EXPECT_EQ(this->Channel().GetSendQueueLength(), 3U);
  this->transport->ReadyToSend();
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "stack"));
}

TYPED_TEST(ChannelMessages, BlockOnTheStackStaysTheCallersWhenItIsQueuedBehindAnother) {
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->SendText("first");
  {
    CAWMessageBlock block(8);
    block.Write("stack", 5);
    EXPECT_EQ(this->SendBlock(1, 2, block), AW_OK);
    EXPECT_EQ(block.GetNext(), nullptr);
  }
  this->transport->ReadyToSend();
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "first") + Frame(1, 2, "stack"));
}

TYPED_TEST(ChannelMessages, PartlySentFrameIsFinishedBeforeTheNext) {
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 6);
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 3);
  EXPECT_EQ(this->SendText("first"), AW_OK);
  EXPECT_EQ(this->SendText("second"), AW_OK);
  this->transport->ReadyToSend();
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "first") + Frame(1, 2, "second"));
}

TYPED_TEST(ChannelMessages, CloseAfterAnAcceptedMessageLosesNothing) {
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 6);
  EXPECT_EQ(this->SendText("accepted"), AW_OK);
  this->Channel().Close(0);
  EXPECT_EQ(this->transport->wire + this->transport->lingerData, Frame(1, 2, "accepted"));
}

// --- receiving ---

TYPED_TEST(ChannelMessages, FrameIsDeliveredWithItsTypeTagAndPayload) {
  this->transport->Receive(Frame(0xABCD, 0x12345678, "payload"));
  ASSERT_EQ(this->Channel().messages.size(), 1U);
  const Message& message = this->Channel().messages[0];
  EXPECT_EQ(message.type, 0xABCD);
  EXPECT_EQ(message.tag, 0x12345678U);
  EXPECT_EQ(message.payload, "payload");
}

TYPED_TEST(ChannelMessages, EmptyMessageIsDeliveredWithANullPayload) {
  this->transport->Receive(Header(1, 12, 2, 0));
  ASSERT_EQ(this->Channel().messages.size(), 1U);
  EXPECT_TRUE(this->Channel().messages[0].payloadWasNull);
  EXPECT_TRUE(this->Channel().messages[0].payload.empty());
}

TYPED_TEST(ChannelMessages, LargestFrameIsDelivered) {
  const std::string payload(65523, 'l');
  this->transport->Receive(Frame(1, 2, payload));
  ASSERT_EQ(this->Channel().messages.size(), 1U);
  EXPECT_TRUE(this->Channel().messages[0].payload == payload);
}

TYPED_TEST(ChannelMessages, PayloadPointsIntoTheReceivedBlock) {
  const std::string bytes = Frame(1, 2, "in place");
  CAWMessageBlock block(bytes.size());
  block.Write(bytes.data(), bytes.size());
  const char* payload = block.GetReadPtr() + 12;
  this->transport->Receive(block);
  ASSERT_EQ(this->Channel().messages.size(), 1U);
  EXPECT_EQ(this->Channel().messages[0].address, payload);
}

TYPED_TEST(ChannelMessages, SeveralFramesInOneEventComeInOrder) {
  this->transport->Receive(Frame(1, 1, "one") + Header(2, 12, 2, 0) + Frame(3, 3, "three"));
  EXPECT_EQ(Payloads(this->Channel().messages), (Strings{"one", "", "three"}));
}

TYPED_TEST(ChannelMessages, FrameSplitAnywhereIsDeliveredOnceWhenComplete) {
  const std::string frame = Frame(1, 2, "split");
  for (std::size_t cut = 1; cut < frame.size(); ++cut) {
    this->Channel().messages.clear();
    this->transport->Receive(frame.substr(0, cut));
    ASSERT_TRUE(this->Channel().messages.empty()) << cut;
    this->transport->Receive(frame.substr(cut));
    ASSERT_EQ(Payloads(this->Channel().messages), Strings{"split"}) << cut;
  }
}

TYPED_TEST(ChannelMessages, FrameInSingleBytesIsDeliveredOnce) {
  for (const char byte : Frame(1, 2, std::string(3000, 'b')))
    this->transport->Receive(std::string(1, byte));
  EXPECT_EQ(Payloads(this->Channel().messages), Strings{std::string(3000, 'b')});
}

TYPED_TEST(ChannelMessages, RandomStreamInRandomPiecesComesOutAsSent) {
  std::mt19937 random(7);  // fixed: the same stream every time
  std::vector<Message> expected;
  std::string bytes;
  for (int i = 0; i < 500; ++i) {
    const std::size_t size = random() % 10 == 0 ? random() % 65524 : random() % 100;
    expected.push_back({static_cast<std::uint16_t>(random()), static_cast<std::uint32_t>(random()),
                        std::string(size, static_cast<char>(random())), size == 0, nullptr});
    bytes += Frame(expected.back().type, expected.back().tag, expected.back().payload);
  }
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t size = 1 + random() % 65535;
    this->transport->Receive(bytes.substr(at, size));
    at += size;
  }
  EXPECT_TRUE(this->Channel().messages == expected);
}

// --- HandleMessage alone ---

TYPED_TEST(ChannelMessages, LessThanAHeaderNeedsMore) {
  const std::string frame = Frame(1, 2, "x");
  for (std::size_t length = 0; length < 12; ++length)
    EXPECT_EQ(this->Handle(frame.substr(0, length)), 0U) << length;
  EXPECT_TRUE(this->Channel().messages.empty());
}

TYPED_TEST(ChannelMessages, ClaimBeyondTheBytesNeedsMoreEvenWhenItIsMalformed) {
  TraceLines trace;
  EXPECT_EQ(this->Handle(Header(1, 13, 2, 1)), 0U);
  EXPECT_EQ(this->Handle(Header(1, 20, 2, 4)), 0U);
  EXPECT_EQ(this->Handle(Header(1, 65535, 2, 0)), 0U);
  EXPECT_TRUE(trace.Get().empty());
}

TYPED_TEST(ChannelMessages, HandledFrameAnswersItsLength) {
  EXPECT_EQ(this->Handle(Frame(1, 2, "abc")), 15U);
  EXPECT_EQ(this->Handle(Frame(1, 2, "abc") + "more"), 15U);
  EXPECT_EQ(this->Channel().messages.size(), 2U);
}

// --- malformed frames ---

TYPED_TEST(ChannelMessages, LengthsThatDisagreeAreTracedToTheLetter) {
  TraceLines trace;
  EXPECT_EQ(this->Handle(Header(1, 20, 2, 4) + std::string(8, 'x')), 0U);
  const auto lines = trace.Get();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].level, 0U);
  EXPECT_EQ(lines[0].text, this->Complaint(20, 4));
  EXPECT_TRUE(this->Channel().messages.empty());
}

TYPED_TEST(ChannelMessages, PduLengthBelowAHeaderIsMalformed) {
  for (std::uint16_t length = 0; length < 12; ++length) {
    TraceLines trace;
    EXPECT_EQ(this->Handle(Header(1, length, 2, 0)), 0U) << length;
    ASSERT_EQ(trace.Get().size(), 1U) << length;
    EXPECT_EQ(trace.Get()[0].text, this->Complaint(length, 0));
  }
  EXPECT_TRUE(this->Channel().messages.empty());
}

TYPED_TEST(ChannelMessages, DataSizeThatWouldWrapIsMalformed) {
  // Added in 32 bits each of these would agree with its pdulen.
  for (std::uint32_t below = 1; below <= 12; ++below) {
    TraceLines trace;
    const auto length = static_cast<std::uint16_t>(12 - below);
    const std::uint32_t size = 0U - below;
    EXPECT_EQ(this->Handle(Header(1, length, 2, size) + std::string(20, 'x')), 0U);
    ASSERT_EQ(trace.Get().size(), 1U);
    EXPECT_EQ(trace.Get()[0].text, this->Complaint(length, size));
  }
  EXPECT_TRUE(this->Channel().messages.empty());
}

TYPED_TEST(ChannelMessages, DataSizeOfFourGigabytesIsMalformed) {
  TraceLines trace;
  EXPECT_EQ(this->Handle(Header(1, 12, 2, 0xFFFFFFFF)), 0U);
  ASSERT_EQ(trace.Get().size(), 1U);
  EXPECT_EQ(trace.Get()[0].text, this->Complaint(12, 0xFFFFFFFF));
}

TYPED_TEST(ChannelMessages, MalformedFrameStallsTheChannelButKeepsTheConnection) {
  TraceLines trace;
  this->transport->Receive(Frame(1, 1, "good") + Header(1, 20, 2, 4) + std::string(8, 'x') +
                           Frame(2, 2, "behind"));
  EXPECT_EQ(Payloads(this->Channel().messages), Strings{"good"});
  EXPECT_FALSE(this->Channel().IsClosed());
  EXPECT_TRUE(this->transport->disconnects.empty());
  EXPECT_EQ(trace.Get().size(), 1U);
  EXPECT_EQ(this->SendText("still sends"), AW_OK);
}

TYPED_TEST(ChannelMessages, MalformedFrameStopsReadingAtOnce) {
  TraceLines trace;
  EXPECT_FALSE(this->transport->IsReadingStopped());
  this->transport->Receive(Header(1, 20, 2, 4) + std::string(8, 'x'));
  EXPECT_TRUE(this->transport->IsReadingStopped());
  // What was on its way already does not start it again.
  this->transport->Receive(std::string(100, 'x'));
  EXPECT_TRUE(this->transport->IsReadingStopped());
}

TYPED_TEST(ChannelMessages, EndOfAStalledPeerIsStillNoticed) {
  TraceLines trace;
  this->transport->Receive(Header(1, 20, 2, 4) + std::string(8, 'x'));
  this->transport->End(0);
  EXPECT_TRUE(this->Channel().IsClosed());
  EXPECT_EQ(this->transport->GetReferences(), 1U);
}

TYPED_TEST(ChannelMessages, StallThatTheOwnerEndsFreesTheBytes) {
  TraceLines trace;
  this->transport->Receive(Header(1, 20, 2, 4) + std::string(8, 'x'));
  this->Channel().Close(0);
  auto fresh = this->NewTransport();
  keelbase::CAWAutoPtr<typename TypeParam::Rules::Platform::Transport> handle(fresh.Get());
  this->Channel().SetTransportHandle(handle);
  EXPECT_FALSE(fresh->IsReadingStopped());
  fresh->Receive(Frame(1, 1, "good"));
  EXPECT_EQ(Payloads(this->Channel().messages), Strings{"good"});
}

// --- memory of a flooding peer ---

TYPED_TEST(ChannelMessages, LongestUnfinishedFrameIsFarBelowTheReadingLimit) {
  this->transport->Receive(Frame(1, 2, std::string(65523, 'f')).substr(0, 65534));
  EXPECT_FALSE(this->transport->IsReadingStopped());
}

TYPED_TEST(ChannelMessages, MoreThanAMebibyteUnconsumedStopsReading) {
  this->Channel().takesNothing = true;
  for (int i = 0; i < 16; ++i) this->transport->Receive(std::string(65536, 'f'));
  EXPECT_FALSE(this->transport->IsReadingStopped());
  this->transport->Receive("f");
  EXPECT_TRUE(this->transport->IsReadingStopped());
}

// --- closing inside the handler ---

TYPED_TEST(ChannelMessages, CloseInsideAMessageEndsDelivery) {
  this->Channel().onMessage = [&] { this->Channel().Close(0); };
  this->transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(Payloads(this->Channel().messages), Strings{"one"});
  EXPECT_TRUE(this->Channel().IsClosed());
  EXPECT_EQ(this->transport->disconnects, std::vector<long>{0});
}

TYPED_TEST(ChannelMessages, EchoFromInsideTheHandlerWorks) {
  this->Channel().onMessage = [&] { this->SendText("echo"); };
  this->transport->Receive(Frame(1, 1, "one") + Frame(2, 2, "two"));
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "echo") + Frame(1, 2, "echo"));
}

// --- errors of the transport ---

template <class Open>
class ChannelErrorsOverIpc : public ChannelMessages<Open> {};
TYPED_TEST_SUITE(ChannelErrorsOverIpc, OverIpcChannels, ChannelNames);

TYPED_TEST(ChannelErrorsOverIpc, BlockOnTheStackStaysTheCallersAndUnreadAndMayBeSentAgain) {
  this->transport->AnswerNext(EPIPE, 0);
  CAWMessageBlock block(8);
  block.Write("stack", 5);
  EXPECT_EQ(this->SendBlock(1, 2, block), static_cast<AWResult>(EPIPE));
  EXPECT_EQ(block.GetNext(), nullptr);
  EXPECT_EQ(block.GetLength(), 5U);
  EXPECT_FALSE(block.IsShared());
  EXPECT_EQ(this->Channel().GetSendQueueLength(), 0U);
  EXPECT_EQ(this->SendBlock(1, 2, block), AW_OK);
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "stack"));
}

template <class Open>
class ChannelErrorsOverShm : public ChannelMessages<Open> {};
TYPED_TEST_SUITE(ChannelErrorsOverShm, OverShmChannels, ChannelNames);

TYPED_TEST(ChannelErrorsOverShm, BlockOnTheStackStaysTheCallersAndUnreadAndItsBytesStayQueued) {
  this->transport->AnswerNext(EPIPE, 0);
  {
    CAWMessageBlock block(8);
    block.Write("stack", 5);
    EXPECT_EQ(this->SendBlock(1, 2, block), AW_ERROR_FAILURE);
    EXPECT_EQ(block.GetNext(), nullptr);
    EXPECT_EQ(block.GetLength(), 5U);
    EXPECT_FALSE(block.IsShared());
  }
  EXPECT_EQ(this->Channel().GetSendQueueLength(), 17U);
  this->transport->ReadyToSend();
  EXPECT_EQ(this->transport->wire, Frame(1, 2, "stack"));
}

TYPED_TEST(ChannelErrorsOverShm, FramesThatMetErrorsGoOutWholeAndInOrder) {
  for (int i = 0; i < 3; ++i) this->transport->AnswerNext(EPIPE, 0);
  EXPECT_EQ(this->SendText("one"), AW_ERROR_FAILURE);
  EXPECT_EQ(this->Channel().SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_FAILURE);
  EXPECT_EQ(this->SendText(std::string(60000, 'l')), AW_ERROR_FAILURE);
  EXPECT_EQ(this->SendText("four"), AW_OK);
  EXPECT_TRUE(this->transport->wire == Frame(1, 2, "one") + Frame(1, 2, "") +
                                           Frame(1, 2, std::string(60000, 'l')) +
                                           Frame(1, 2, "four"));
}

}  // namespace
}  // namespace zarn::test
