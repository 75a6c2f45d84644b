// CZARNStreamCounters_test.cpp - what a stream counts, over a scripted transport.
#include "zarn/utils/CZARNStreamCounters.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"
#include "RecordingStream.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;

template <class World>
class CZARNStreamCountersOfAStream : public ::testing::Test, public StreamFixture<World> {
 protected:
  const utils::CZARNStreamCounters& Counters() { return this->stream->GetCounters(); }
};

TYPED_TEST_SUITE(CZARNStreamCountersOfAStream, StreamWorlds, WorldNames);

TYPED_TEST(CZARNStreamCountersOfAStream, StartAtZero) {
  EXPECT_EQ(this->Counters().messagesSent, 0U);
  EXPECT_EQ(this->Counters().messagesReceived, 0U);
  EXPECT_EQ(this->Counters().bytesSent, 0U);
  EXPECT_EQ(this->Counters().bytesReceived, 0U);
  EXPECT_EQ(this->Counters().connects, 0U);
  EXPECT_EQ(this->Counters().malformedFrames, 0U);
  EXPECT_EQ(this->Counters().sendQueueHighMark, 0U);
  EXPECT_EQ(this->Counters().lastDisconnectReason, 0);
}

TYPED_TEST(CZARNStreamCountersOfAStream, CountAcceptedMessagesAndTheirBytes) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->Send("first");
  this->Send("second");
  EXPECT_EQ(this->Counters().messagesSent, 2U);
  EXPECT_EQ(this->Counters().bytesSent, 11U);
  EXPECT_EQ(this->Counters().sendQueueHighMark, 9U);
  transport->ReadyToSend();
  EXPECT_EQ(this->Counters().sendQueueHighMark, 9U);
}

TYPED_TEST(CZARNStreamCountersOfAStream, DoNotCountARefusedMessage) {
  EXPECT_NE(this->Send("no transport"), keelbase::AW_OK);
  auto transport = this->Attach();
  transport->AnswerNext(EPIPE, 0);
  this->Send("error");
  EXPECT_EQ(this->Counters().messagesSent, 0U);
  EXPECT_EQ(this->Counters().bytesSent, 0U);
}

TYPED_TEST(CZARNStreamCountersOfAStream, DoNotCountFramesThatAreClaimedBeyondTheBytes) {
  auto transport = this->Attach();
  this->stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("bytes");
  EXPECT_EQ(this->Counters().messagesReceived, 0U);
  EXPECT_EQ(this->Counters().bytesReceived, 5U);
}

TYPED_TEST(CZARNStreamCountersOfAStream, CountFramesAndAllBytesThatArrived) {
  auto transport = this->Attach();
  transport->Receive("one;two;thr");
  EXPECT_EQ(this->Counters().messagesReceived, 2U);
  EXPECT_EQ(this->Counters().bytesReceived, 11U);
  transport->Receive("ee;");
  EXPECT_EQ(this->Counters().messagesReceived, 3U);
  EXPECT_EQ(this->Counters().bytesReceived, 14U);
}

TYPED_TEST(CZARNStreamCountersOfAStream, CountAFrameWhoseHandlerConnectsAnew) {
  auto transport = this->Attach();
  this->DuringFirstMessage([&] { this->Connect(2); });
  transport->Receive("one;two;");
  EXPECT_EQ(this->Counters().messagesReceived, 1U);
  EXPECT_EQ(this->Counters().bytesReceived, 8U);
}

TYPED_TEST(CZARNStreamCountersOfAStream, CountConnectionsAndKeepTheLastReason) {
  this->ConnectFully()->End(ECONNRESET);
  EXPECT_EQ(this->Counters().connects, 1U);
  EXPECT_EQ(this->Counters().lastDisconnectReason, ECONNRESET);
  this->Attach();
  EXPECT_EQ(this->Counters().connects, 2U);
  this->Connect();
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  EXPECT_EQ(this->Counters().connects, 2U);
  EXPECT_EQ(this->Counters().lastDisconnectReason, ECONNREFUSED);
}

template <class World>
class CZARNStreamCountersOfAChannel : public ::testing::Test, public ServerFixture<World> {};

TYPED_TEST_SUITE(CZARNStreamCountersOfAChannel, ServerWorlds, WorldNames);

TYPED_TEST(CZARNStreamCountersOfAChannel, CountAMalformedFrameOnceForEachConnection) {
  TraceLines trace;
  this->transport->Receive(Header(1, 20, 2, 4) + std::string(8, 'x'));
  this->transport->Receive("what was under way");
  EXPECT_EQ(this->server->GetCounters().malformedFrames, 1U);
}

}  // namespace
}  // namespace zarn::test
