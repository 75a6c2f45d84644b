// StreamSend_test.cpp - sending, partial sends and OnSend, in a stream of any kind, over scripted
// transports.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingStream.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;

template <class World>
class StreamSend : public ::testing::Test, public StreamFixture<World> {};

TYPED_TEST_SUITE(StreamSend, StreamWorlds, WorldNames);

TYPED_TEST(StreamSend, WholeSendQueuesNothing) {
  auto transport = this->Attach();
  EXPECT_EQ(this->Send("bytes"), AW_OK);
  EXPECT_EQ(transport->wire, "bytes");
  EXPECT_TRUE(transport->sendParameterWasNull);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamSend, ChainIsSentWholeAndStaysTheCallers) {
  auto transport = this->Attach();
  const auto chain = Chain({"one,", "two"});
  const CAWMessageBlock* second = chain->GetNext();
  EXPECT_EQ(this->stream->SendMsg(*chain), AW_OK);
  EXPECT_EQ(transport->wire, "one,two");
  EXPECT_EQ(chain->GetNext(), second);
}

TYPED_TEST(StreamSend, ChainIsOfferedBlockByBlockWithoutACopy) {
  auto transport = this->Attach();
  const auto chain = Chain({"one,", "two"});
  const char* first = chain->GetReadPtr();
  const char* second = chain->GetNext()->GetReadPtr();
  EXPECT_EQ(this->stream->SendMsg(*chain), AW_OK);
  ASSERT_EQ(transport->segments.size(), 2U);
  EXPECT_EQ(transport->segments[0].data, first);
  EXPECT_EQ(transport->segments[1].data, second);
}

TYPED_TEST(StreamSend, PartialSendOfAChainKeepsTheRestOfAllItsBlocks) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  EXPECT_EQ(this->stream->SendMsg(*Chain({"one,", "two"})), AW_OK);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 2U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "one,two");
}

TYPED_TEST(StreamSend, PartialSendIsSuccessAndKeepsTheRest) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  EXPECT_EQ(this->Send("bytes"), AW_OK);
  EXPECT_EQ(transport->wire, "by");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 3U);
}

TYPED_TEST(StreamSend, SecondMessageIsQueuedBehindAPartialFirstAndOnSendPushesBothInOrder) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 3);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(this->Send("first;"), AW_OK);
  EXPECT_EQ(this->Send("second;"), AW_OK);
  EXPECT_EQ(transport->wire, "fir");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 10U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "first;second;");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamSend, LaterMessageOffersTheWholeQueue) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->Send("first;");
  EXPECT_EQ(this->Send("second;"), AW_OK);
  EXPECT_EQ(transport->offered, (std::vector<std::size_t>{6, 13}));
  EXPECT_EQ(transport->wire, "first;second;");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamSend, LaterMessageThatIsTakenInPartLeavesTheRestInOrder) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 8);
  this->Send("first;");
  EXPECT_EQ(this->Send("second;"), AW_OK);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 5U);
  EXPECT_EQ(this->Send("third;"), AW_OK);
  EXPECT_EQ(transport->wire, "first;second;third;");
}

TYPED_TEST(StreamSend, SenderMayReuseItsBytesAtOnceAfterAPartialSend) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 1);
  std::string bytes = "bytes;";
  EXPECT_EQ(this->stream->SendMsg(bytes.data(), bytes.size()), AW_OK);
  bytes.assign(bytes.size(), '#');
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "bytes;");
}

TYPED_TEST(StreamSend, SenderMayRewriteItsOwnedBlockAfterAPartialSend) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  {
    CAWMessageBlock block(16);
    char* begin = block.GetWritePtr();
    ASSERT_EQ(block.Write("bytes;", 6), AW_OK);
    EXPECT_EQ(this->stream->SendMsg(block), AW_OK);
    std::memset(begin, '#', 6);
  }
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "bytes;");
}

TYPED_TEST(StreamSend, BytesAreOfferedWithoutACopy) {
  auto transport = this->Attach();
  const std::string bytes = "the caller's own;";
  this->Send(bytes);
  ASSERT_EQ(transport->segments.size(), 1U);
  // Send() passes the string by reference, so the address must be the very same.
  EXPECT_EQ(transport->segments[0].data, bytes.data());
}

TYPED_TEST(StreamSend, BytesGoThroughTheVirtualBlockForm) {
  struct Overriding : TypeParam::Stream {
    using TypeParam::Stream::SendMsg;
    keelbase::AWResult SendMsg(CAWMessageBlock& block) override {
      seen = block.FlattenChained();
      return 4711;
    }
    std::string seen;
  };
  Overriding overriding;
  EXPECT_EQ(overriding.SendMsg("abc", 3), 4711U);
  EXPECT_EQ(overriding.seen, "abc");
}

TYPED_TEST(StreamSend, EmptyMessageIsHarmless) {
  auto transport = this->Attach();
  EXPECT_EQ(this->stream->SendMsg(nullptr, 0), AW_OK);
  EXPECT_EQ(transport->wire, "");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

// --- OnSend ---

TYPED_TEST(StreamSend, OnSendKeepsWhatTheTransportStillRefuses) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 4);
  this->Send("0123456789");
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "0123");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 6U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "0123456789");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamSend, OnSendWithAnEmptyQueueOffersNothing) {
  auto transport = this->Attach();
  transport->ReadyToSend();
  EXPECT_TRUE(transport->offered.empty());
}

TYPED_TEST(StreamSend, OnSendIgnoresAHardError) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(EPIPE, 0);
  this->Send("waits;");
  transport->ReadyToSend();
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_EQ(this->stream->GetSendQueueLength(), 6U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "waits;");
}

// --- the whole of it ---

TYPED_TEST(StreamSend, LongQueueOfSmallMessagesLosesAndReordersNothing) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  std::string all;
  for (int i = 0; i < 20000; ++i) {
    const std::string message = std::to_string(i) + ";";
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
    ASSERT_EQ(this->Send(message), AW_OK);
    all += message;
    ASSERT_EQ(this->stream->GetSendQueueLength(), all.size());
  }
  transport->sendScript.clear();
  transport->ReadyToSend();
  EXPECT_TRUE(transport->wire == all);
}

TYPED_TEST(StreamSend, AnyMixOfPartialAndWholeSendsDeliversTheBytesInOrder) {
  std::mt19937 random(20261121);  // fixed: the same mix every time
  auto transport = this->Attach();
  std::string all;
  for (int i = 0; i < 2000; ++i) {
    transport->sendScript.clear();
    if (random() % 3 != 0) transport->AnswerNext(AW_ERROR_PARTIAL_DATA, random() % 200);
    if (random() % 4 == 0) {
      transport->ReadyToSend();
    } else {
      std::string message(random() % 300, static_cast<char>('a' + i % 26));
      ASSERT_EQ(this->Send(message), AW_OK);
      all += message;
    }
    ASSERT_EQ(transport->wire.size() + this->stream->GetSendQueueLength(), all.size());
  }
  transport->sendScript.clear();
  transport->ReadyToSend();
  EXPECT_TRUE(transport->wire == all);
}

}  // namespace
}  // namespace zarn::test
