// CZARNIPCStreamBase_send_test.cpp - sending, partial sends and OnSend, over a scripted transport.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <random>
#include <string>

#include "FakeIpc.h"
#include "NetworkThread.h"
#include "RecordingStream.h"
#include "zarn/utils/CZARNIPCStreamBase.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;

class CZARNIPCStreamBaseSend : public ::testing::Test, public StreamFixture {
 protected:
  static void Fill(CAWMessageBlock& block, const std::string& bytes) {
    ASSERT_EQ(block.Write(bytes.data(), bytes.size()), AW_OK);
  }
};

TEST_F(CZARNIPCStreamBaseSend, SendWithoutATransportAnswers10002) {
  CAWMessageBlock block(8);
  Fill(block, "bytes");
  EXPECT_EQ(stream->SendMsg(block), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(block.GetLength(), 5U);
  EXPECT_EQ(Send("bytes"), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseSend, WholeSendAdvancesTheBlockAndQueuesNothing) {
  auto transport = Attach();
  CAWMessageBlock block(8);
  Fill(block, "bytes");
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(block.GetChainedLength(), 0U);
  EXPECT_EQ(transport->wire, "bytes");
  EXPECT_TRUE(transport->sendParameterWasNull);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseSend, ChainIsSentWholeAndAdvancedWhole) {
  auto transport = Attach();
  CAWMessageBlock block(8);
  Fill(block, "one,");
  auto* second = new CAWMessageBlock(8);
  Fill(*second, "two");
  block.Append(second);
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(transport->wire, "one,two");
  EXPECT_EQ(block.GetChainedLength(), 0U);
  EXPECT_EQ(block.GetNext(), second);  // still the caller's
}

TEST_F(CZARNIPCStreamBaseSend, PartialSendIsSuccessAndKeepsTheRest) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  CAWMessageBlock block(8);
  Fill(block, "bytes");
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(block.GetChainedLength(), 0U);
  EXPECT_EQ(transport->wire, "by");
  EXPECT_EQ(stream->GetSendQueueLength(), 3U);
}

TEST_F(CZARNIPCStreamBaseSend, PartialSendOfAChainAdvancesAllItsBlocks) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  CAWMessageBlock block(8);
  Fill(block, "one,");
  auto* second = new CAWMessageBlock(8);
  Fill(*second, "two");
  block.Append(second);
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(block.GetChainedLength(), 0U);
  EXPECT_EQ(stream->GetSendQueueLength(), 2U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "one,two");
}

TEST_F(CZARNIPCStreamBaseSend, HardErrorIsReturnedAndLeavesTheBlock) {
  auto transport = Attach();
  transport->AnswerNext(EPIPE, 0);
  CAWMessageBlock block(8);
  Fill(block, "bytes");
  EXPECT_EQ(stream->SendMsg(block), static_cast<keelbase::AWResult>(EPIPE));
  EXPECT_EQ(block.GetLength(), 5U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(transport->wire, "bytes");
}

TEST_F(CZARNIPCStreamBaseSend, SecondMessageIsQueuedBehindAPartialFirstAndOnSendPushesBothInOrder) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 3);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(Send("first;"), AW_OK);
  EXPECT_EQ(Send("second;"), AW_OK);
  EXPECT_EQ(transport->wire, "fir");
  EXPECT_EQ(stream->GetSendQueueLength(), 10U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "first;second;");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseSend, LaterMessageOffersTheWholeQueue) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("first;");
  CAWMessageBlock block(8);
  Fill(block, "second;");
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(transport->offered, (std::vector<std::size_t>{6, 13}));
  EXPECT_EQ(transport->wire, "first;second;");
  EXPECT_EQ(block.GetLength(), 0U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseSend, LaterMessageThatIsTakenInPartLeavesTheRestInOrder) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 8);
  Send("first;");
  EXPECT_EQ(Send("second;"), AW_OK);
  EXPECT_EQ(stream->GetSendQueueLength(), 5U);
  EXPECT_EQ(Send("third;"), AW_OK);
  EXPECT_EQ(transport->wire, "first;second;third;");
}

TEST_F(CZARNIPCStreamBaseSend, HardErrorBehindAQueueKeepsTheDuplicateQueuedAndTheBlockUnread) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(EPIPE, 0);
  Send("first;");
  CAWMessageBlock block(8);
  Fill(block, "second;");
  EXPECT_EQ(stream->SendMsg(block), static_cast<keelbase::AWResult>(EPIPE));
  EXPECT_EQ(block.GetLength(), 7U);
  EXPECT_EQ(stream->GetSendQueueLength(), 13U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "first;second;");
}

TEST_F(CZARNIPCStreamBaseSend, WhatTheTransportClaimsToHaveTakenIsDroppedAlsoWhenNotAdvanced) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_OK, 0);
  Send("first;");
  CAWMessageBlock block(8);
  Fill(block, "second;");
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(block.GetLength(), 0U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  Send("third;");
  EXPECT_EQ(transport->wire, "third;");
}

TEST_F(CZARNIPCStreamBaseSend, BlockThatTheTransportTookWithoutAdvancingIsAdvanced) {
  auto transport = Attach();
  transport->AnswerNext(AW_OK, 0);
  CAWMessageBlock block(8);
  Fill(block, "bytes");
  EXPECT_EQ(stream->SendMsg(block), AW_OK);
  EXPECT_EQ(block.GetLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseSend, SenderMayReuseItsBytesAtOnceAfterAPartialSend) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 1);
  std::string bytes = "bytes;";
  EXPECT_EQ(stream->SendMsg(bytes.data(), bytes.size()), AW_OK);
  bytes.assign(bytes.size(), '#');
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "bytes;");
}

TEST_F(CZARNIPCStreamBaseSend, SenderMayRewriteItsOwnedBlockAfterAPartialSend) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  {
    CAWMessageBlock block(16);
    Fill(block, "bytes;");
    EXPECT_EQ(stream->SendMsg(block), AW_OK);
    Fill(block, "######");
  }
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "bytes;");
}

TEST_F(CZARNIPCStreamBaseSend, BytesAreOfferedWithoutACopy) {
  auto transport = Attach();
  const std::string bytes = "the caller's own;";
  Send(bytes);
  ASSERT_EQ(transport->segments.size(), 1U);
  // Send() passes the string by reference, so the address must be the very same.
  EXPECT_EQ(transport->segments[0].data, bytes.data());
}

TEST_F(CZARNIPCStreamBaseSend, BytesGoThroughTheVirtualBlockForm) {
  struct Overriding : RecordingStream {
    using RecordingStream::SendMsg;
    keelbase::AWResult SendMsg(CAWMessageBlock& block) override {
      seen = block.FlattenChained();
      return 4711;
    }
    std::string seen;
  };
  Overriding overriding;
  EXPECT_EQ(static_cast<utils::CZARNIPCStreamBase&>(overriding).SendMsg("abc", 3), 4711U);
  EXPECT_EQ(overriding.seen, "abc");
}

TEST_F(CZARNIPCStreamBaseSend, EmptyMessageIsHarmless) {
  auto transport = Attach();
  EXPECT_EQ(stream->SendMsg(nullptr, 0), AW_OK);
  EXPECT_EQ(transport->wire, "");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

// --- OnSend ---

TEST_F(CZARNIPCStreamBaseSend, OnSendKeepsWhatTheTransportStillRefuses) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 4);
  Send("0123456789");
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "0123");
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "0123456789");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseSend, OnSendWithAnEmptyQueueOffersNothing) {
  auto transport = Attach();
  transport->ReadyToSend();
  EXPECT_TRUE(transport->offered.empty());
}

TEST_F(CZARNIPCStreamBaseSend, OnSendIgnoresAHardError) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(EPIPE, 0);
  Send("waits;");
  transport->ReadyToSend();
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "waits;");
}

TEST_F(CZARNIPCStreamBaseSend, OnSendWithoutATransportDoesNothing) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("waits;");
  stream->Connect(keelbase::CAWIPCAddr("/peer"), nullptr);  // keeps the queue, drops the transport
  stream->OnSend(transport.Get(), nullptr);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  EXPECT_EQ(transport->wire, "");
}

// --- the whole of it ---

TEST_F(CZARNIPCStreamBaseSend, LongQueueOfSmallMessagesLosesAndReordersNothing) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  std::string all;
  for (int i = 0; i < 20000; ++i) {
    const std::string message = std::to_string(i) + ";";
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
    ASSERT_EQ(Send(message), AW_OK);
    all += message;
    ASSERT_EQ(stream->GetSendQueueLength(), all.size());
  }
  transport->sendScript.clear();
  transport->ReadyToSend();
  EXPECT_TRUE(transport->wire == all);
}

TEST_F(CZARNIPCStreamBaseSend, AnyMixOfPartialAndWholeSendsDeliversTheBytesInOrder) {
  std::mt19937 random(20261121);  // fixed: the same mix every time
  auto transport = Attach();
  std::string all;
  for (int i = 0; i < 2000; ++i) {
    transport->sendScript.clear();
    if (random() % 3 != 0) transport->AnswerNext(AW_ERROR_PARTIAL_DATA, random() % 200);
    if (random() % 4 == 0) {
      transport->ReadyToSend();
    } else {
      std::string message(random() % 300, static_cast<char>('a' + i % 26));
      ASSERT_EQ(Send(message), AW_OK);
      all += message;
    }
    ASSERT_EQ(transport->wire.size() + stream->GetSendQueueLength(), all.size());
  }
  transport->sendScript.clear();
  transport->ReadyToSend();
  EXPECT_TRUE(transport->wire == all);
}

}  // namespace
}  // namespace zarn::test
