// CZARNStreamCounters_test.cpp - what a stream counts, over a scripted transport.
#include "zarn/utils/CZARNStreamCounters.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "FakeIpc.h"
#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingChannel.h"
#include "RecordingStream.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;

class CZARNStreamCountersOfAStream : public ::testing::Test, public StreamFixture {
 protected:
  const utils::CZARNStreamCounters& Counters() { return stream->GetCounters(); }
};

TEST_F(CZARNStreamCountersOfAStream, StartAtZero) {
  EXPECT_EQ(Counters().messagesSent, 0U);
  EXPECT_EQ(Counters().messagesReceived, 0U);
  EXPECT_EQ(Counters().bytesSent, 0U);
  EXPECT_EQ(Counters().bytesReceived, 0U);
  EXPECT_EQ(Counters().connects, 0U);
  EXPECT_EQ(Counters().malformedFrames, 0U);
  EXPECT_EQ(Counters().sendQueueHighMark, 0U);
  EXPECT_EQ(Counters().lastDisconnectReason, 0);
}

TEST_F(CZARNStreamCountersOfAStream, CountAcceptedMessagesAndTheirBytes) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("first");
  Send("second");
  EXPECT_EQ(Counters().messagesSent, 2U);
  EXPECT_EQ(Counters().bytesSent, 11U);
  EXPECT_EQ(Counters().sendQueueHighMark, 9U);
  transport->ReadyToSend();
  EXPECT_EQ(Counters().sendQueueHighMark, 9U);
}

TEST_F(CZARNStreamCountersOfAStream, DoNotCountARefusedMessage) {
  EXPECT_NE(Send("no transport"), keelbase::AW_OK);
  auto transport = Attach();
  transport->AnswerNext(EPIPE, 0);
  Send("error");
  EXPECT_EQ(Counters().messagesSent, 0U);
  EXPECT_EQ(Counters().bytesSent, 0U);
}

TEST_F(CZARNStreamCountersOfAStream, CountFramesAndAllBytesThatArrived) {
  auto transport = Attach();
  transport->Receive("one;two;thr");
  EXPECT_EQ(Counters().messagesReceived, 2U);
  EXPECT_EQ(Counters().bytesReceived, 11U);
  transport->Receive("ee;");
  EXPECT_EQ(Counters().messagesReceived, 3U);
  EXPECT_EQ(Counters().bytesReceived, 14U);
}

TEST_F(CZARNStreamCountersOfAStream, CountConnectionsAndKeepTheLastReason) {
  ConnectFully()->End(ECONNRESET);
  EXPECT_EQ(Counters().connects, 1U);
  EXPECT_EQ(Counters().lastDisconnectReason, ECONNRESET);
  Attach();
  EXPECT_EQ(Counters().connects, 2U);
  stream->Connect(keelbase::CAWIPCAddr("/peer"), nullptr);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  EXPECT_EQ(Counters().connects, 2U);
  EXPECT_EQ(Counters().lastDisconnectReason, ECONNREFUSED);
}

class CZARNStreamCountersOfAChannel : public ::testing::Test, public ServerFixture {};

TEST_F(CZARNStreamCountersOfAChannel, CountAMalformedFrameOnceForEachConnection) {
  TraceLines trace;
  transport->Receive(Header(1, 20, 2, 4) + std::string(8, 'x'));
  transport->Receive("what was under way");
  EXPECT_EQ(server->GetCounters().malformedFrames, 1U);
}

}  // namespace
}  // namespace zarn::test
