// CZARNShmIPCStreamBase_send_test.cpp - how only the shared-memory stream sends: it leaves the
// caller's blocks as they are and queues whatever was not taken. Over scripted transports.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingStream.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNShmIPCStreamBaseSend : public ::testing::Test, public StreamFixture<OverShm> {};

// Where the unread bytes of each block stand.
std::vector<Segment> Unread(const CAWMessageBlock& chain) {
  std::vector<Segment> unread;
  for (const auto* block = &chain; block != nullptr; block = block->GetNext())
    unread.push_back({block->GetReadPtr(), block->GetLength()});
  return unread;
}

void ExpectSame(const std::vector<Segment>& a, const std::vector<Segment>& b) {
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(static_cast<const void*>(a[i].data), static_cast<const void*>(b[i].data)) << i;
    EXPECT_EQ(a[i].length, b[i].length) << i;
  }
}

// 1, 2 and 9 blocks, the first of which has been read in part.
class CZARNShmIPCStreamBaseChains : public CZARNShmIPCStreamBaseSend,
                                    public ::testing::WithParamInterface<int> {
 protected:
  CZARNShmIPCStreamBaseChains() {
    Strings texts;
    for (int i = 0; i < GetParam(); ++i) texts.push_back("block" + std::to_string(i) + ",");
    chain = Chain(texts);
    chain->AdvanceReadPtr(2);
    text = chain->FlattenChained();
  }

  // What SendMsg answers for the chain; the chain must be as it was.
  AWResult SendChain() {
    const auto before = Unread(*chain);
    const AWResult result = stream->SendMsg(*chain);
    ExpectSame(Unread(*chain), before);
    return result;
  }

  Transport transport = Attach();
  std::unique_ptr<CAWMessageBlock> chain;
  std::string text;
};

INSTANTIATE_TEST_SUITE_P(Blocks, CZARNShmIPCStreamBaseChains, ::testing::Values(1, 2, 9),
                         ::testing::PrintToStringParamName());

TEST_P(CZARNShmIPCStreamBaseChains, IsNotAdvancedWhenItIsSentWhole) {
  EXPECT_EQ(SendChain(), AW_OK);
  EXPECT_EQ(transport->wire, text);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_P(CZARNShmIPCStreamBaseChains, IsOfferedItselfWhenNothingWaits) {
  SendChain();
  ExpectSame(transport->segments, Unread(*chain));
}

TEST_P(CZARNShmIPCStreamBaseChains, IsNotAdvancedWhereverItIsCut) {
  std::string all;
  for (std::size_t cut = 0; cut < text.size(); ++cut) {
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, cut);
    EXPECT_EQ(SendChain(), AW_OK) << cut;
    EXPECT_EQ(stream->GetSendQueueLength(), text.size() - cut);
    transport->ReadyToSend();
    all += text;
    EXPECT_EQ(transport->wire, all) << cut;
  }
}

TEST_P(CZARNShmIPCStreamBaseChains, IsNotAdvancedAndStaysQueuedOnAnError) {
  transport->AnswerNext(EPIPE, 0);
  EXPECT_EQ(SendChain(), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->GetSendQueueLength(), text.size());
  EXPECT_FALSE(stream->IsClosed());
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, text);
}

TEST_P(CZARNShmIPCStreamBaseChains, IsNotAdvancedBehindAQueueAndGoesOutInOrder) {
  for (const SendStep answer : {SendStep{AW_OK, SendStep::kAll}, SendStep{AW_ERROR_PARTIAL_DATA, 0},
                                SendStep{AW_ERROR_PARTIAL_DATA, 8}, SendStep{EPIPE, 0}}) {
    transport->wire.clear();
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
    Send("first;");
    transport->AnswerNext(answer.result, answer.take);
    EXPECT_EQ(SendChain(), answer.result == EPIPE ? AW_ERROR_FAILURE : AW_OK);
    EXPECT_EQ(transport->offered.back(), 6 + text.size());  // all that waits, in one offer
    transport->ReadyToSend();
    EXPECT_EQ(transport->wire, "first;" + text);
    EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  }
}

TEST_F(CZARNShmIPCStreamBaseSend, WhatTheTransportDidNotAdvanceOverWaitsWhateverItAnswered) {
  auto transport = Attach();
  transport->AnswerNext(AW_OK, 3);
  EXPECT_EQ(Send("first;"), AW_OK);
  EXPECT_EQ(stream->GetSendQueueLength(), 3U);
  transport->AnswerNext(AW_OK, 4);
  EXPECT_EQ(Send("second;"), AW_OK);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "first;second;");
}

TEST_F(CZARNShmIPCStreamBaseSend, SendWithoutATransportAnswers10001AndKeepsNothing) {
  const auto block = Chain({"bytes"});
  EXPECT_EQ(stream->SendMsg(*block), AW_ERROR_FAILURE);
  EXPECT_EQ(Send("bytes"), AW_ERROR_FAILURE);
  Connect();
  EXPECT_EQ(Send("bytes"), AW_ERROR_FAILURE);
  EXPECT_EQ(block->GetLength(), 5U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNShmIPCStreamBaseSend, EveryErrorOfTheTransportIs10001) {
  auto transport = Attach();
  for (const AWResult error : {AWResult{EPIPE}, AW_ERROR_NOT_INITIALIZED, AWResult{10012}}) {
    transport->AnswerNext(error, 0);
    EXPECT_EQ(Send("bytes"), AW_ERROR_FAILURE) << error;
  }
}

TEST_F(CZARNShmIPCStreamBaseSend, MessageThatMetAnErrorIsOfferedAgainBeforeTheNextOne) {
  auto transport = Attach();
  transport->AnswerNext(EPIPE, 0);
  transport->AnswerNext(EPIPE, 0);
  EXPECT_EQ(Send("first;"), AW_ERROR_FAILURE);
  EXPECT_EQ(Send("second;"), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->GetSendQueueLength(), 13U);
  EXPECT_EQ(Send("third;"), AW_OK);
  EXPECT_EQ(transport->offered, (std::vector<std::size_t>{6, 13, 19}));
  EXPECT_EQ(transport->wire, "first;second;third;");
}

TEST_F(CZARNShmIPCStreamBaseSend, SenderMayReuseItsBytesAtOnceAfterAnError) {
  auto transport = Attach();
  transport->AnswerNext(EPIPE, 0);
  for (const std::size_t size : {6U, 60000U}) {
    std::string bytes(size, 'b');
    transport->wire.clear();
    stream->SendMsg(bytes.data(), bytes.size());
    bytes.assign(size, '#');
    transport->ReadyToSend();
    EXPECT_TRUE(transport->wire == std::string(size, 'b')) << size;
    transport->AnswerNext(EPIPE, 0);
  }
}

}  // namespace
}  // namespace zarn::test
