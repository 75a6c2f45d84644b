// StreamAdvancingSend_test.cpp - sending in the streams that advance the caller's block and answer
// with the transport's own errors, over scripted transports.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingBlocks.h"
#include "RecordingStream.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;

template <class World>
class StreamAdvancingSend : public ::testing::Test, public StreamFixture<World> {};

using AdvancedBlockWorlds =
    ::testing::Types<OverIpc, OverTcp, OverTcpTransport, OverTls, OverSslPtcp>;
TYPED_TEST_SUITE(StreamAdvancingSend, AdvancedBlockWorlds, WorldNames);

TYPED_TEST(StreamAdvancingSend, SendWithoutATransportIsRefusedAndLeavesTheBlock) {
  const auto block = Chain({"bytes"});
  EXPECT_EQ(this->stream->SendMsg(*block), TypeParam::kNotConnected);
  EXPECT_EQ(block->GetLength(), 5U);
  EXPECT_EQ(this->Send("bytes"), TypeParam::kNotConnected);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamAdvancingSend, WholeSendAdvancesTheBlockAndQueuesNothing) {
  auto transport = this->Attach();
  const auto block = Chain({"bytes"});
  EXPECT_EQ(this->stream->SendMsg(*block), AW_OK);
  EXPECT_EQ(block->GetChainedLength(), 0U);
  EXPECT_EQ(transport->wire, "bytes");
  EXPECT_TRUE(transport->sendParameterWasNull);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamAdvancingSend, ChainIsSentWholeAndAdvancedWhole) {
  auto transport = this->Attach();
  const auto block = Chain({"one,", "two"});
  const CAWMessageBlock* second = block->GetNext();
  EXPECT_EQ(this->stream->SendMsg(*block), AW_OK);
  EXPECT_EQ(transport->wire, "one,two");
  EXPECT_EQ(block->GetChainedLength(), 0U);
  EXPECT_EQ(block->GetNext(), second);  // still the caller's
}

TYPED_TEST(StreamAdvancingSend, PartialSendOfAChainAdvancesAllItsBlocks) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 5);
  const auto block = Chain({"one,", "two"});
  EXPECT_EQ(this->stream->SendMsg(*block), AW_OK);
  EXPECT_EQ(block->GetChainedLength(), 0U);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 2U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "one,two");
}

TYPED_TEST(StreamAdvancingSend, HardErrorIsReturnedAndLeavesTheBlock) {
  auto transport = this->Attach();
  transport->AnswerNext(EPIPE, 0);
  const auto block = Chain({"bytes"});
  EXPECT_EQ(this->stream->SendMsg(*block), static_cast<keelbase::AWResult>(EPIPE));
  EXPECT_EQ(block->GetLength(), 5U);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_EQ(this->stream->SendMsg(*block), AW_OK);
  EXPECT_EQ(transport->wire, "bytes");
}

TYPED_TEST(StreamAdvancingSend, HardErrorBehindAQueueKeepsTheDuplicateQueuedAndTheBlockUnread) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(EPIPE, 0);
  this->Send("first;");
  const auto block = Chain({"second;"});
  EXPECT_EQ(this->stream->SendMsg(*block), static_cast<keelbase::AWResult>(EPIPE));
  EXPECT_EQ(block->GetLength(), 7U);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 13U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "first;second;");
}

TYPED_TEST(StreamAdvancingSend, WhatTheTransportClaimsToHaveTakenIsDroppedAlsoWhenNotAdvanced) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  transport->AnswerNext(AW_OK, 0);
  this->Send("first;");
  const auto block = Chain({"second;"});
  EXPECT_EQ(this->stream->SendMsg(*block), AW_OK);
  EXPECT_EQ(block->GetLength(), 0U);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
  this->Send("third;");
  EXPECT_EQ(transport->wire, "third;");
}

TYPED_TEST(StreamAdvancingSend, BlockThatTheTransportTookWithoutAdvancingIsAdvanced) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_OK, 0);
  const auto block = Chain({"bytes"});
  EXPECT_EQ(this->stream->SendMsg(*block), AW_OK);
  EXPECT_EQ(block->GetLength(), 0U);
}

}  // namespace
}  // namespace zarn::test
