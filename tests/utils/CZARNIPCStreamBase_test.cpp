// CZARNIPCStreamBase_test.cpp - what only the local-IPC stream does. The rules of all streams are
// checked in Stream*_test.cpp. Over scripted transports.
#include "zarn/utils/CZARNIPCStreamBase.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "RecordingStream.h"
#include "StoredSize.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNIPCStreamBaseRules : public ::testing::Test, public StreamFixture<OverIpc> {};

TEST_F(CZARNIPCStreamBaseRules, OverBufferFlagsAreNeverSet) {
  stream->SetSendBufferSize(1);
  stream->SetRcvBufferSize(1);
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("much more than one byte");
  transport->Receive("much more than one byte");
  EXPECT_FALSE(stream->IsSendOverBuffer());
  EXPECT_FALSE(stream->IsRcvOverBuffer());
}

TEST_F(CZARNIPCStreamBaseRules, BufferSizesStartAt32768AndAreStoredAsTheyAre) {
  const auto setReceive = [&](std::uint32_t size) { stream->SetRcvBufferSize(size); };
  const StoredSize received(*stream, setReceive, 32768);
  const auto setSend = [&](std::uint32_t size) { stream->SetSendBufferSize(size); };
  const StoredSize sent(*stream, setSend, 32768);
  for (const std::uint32_t size : {0U, 65536U, 0xFFFFFFFFU}) {
    setReceive(size);
    EXPECT_EQ(received.Get(), size);
    setSend(size);
    EXPECT_EQ(sent.Get(), size);
  }
}

// --- connecting ---

TEST_F(CZARNIPCStreamBaseRules, ConnectAsksForAConnectorOfKindOne) {
  Connect();
  EXPECT_EQ(manager.kinds, std::vector<int>{1});
}

TEST_F(CZARNIPCStreamBaseRules, ConnectReturnsTheManagersError) {
  manager.createResult = 10012;
  EXPECT_EQ(Connect(), 10012U);
  EXPECT_TRUE(log.empty());
}

TEST_F(CZARNIPCStreamBaseRules, ConnectThatFindsNoConnectorLeavesAClosedStreamClosed) {
  stream->Close(0);
  manager.createResult = AW_ERROR_FAILURE;
  EXPECT_EQ(Connect(), AW_ERROR_FAILURE);
  EXPECT_TRUE(stream->IsClosed());
}

TEST_F(CZARNIPCStreamBaseRules, ConnectWithoutCloseKeepsBothBuffers) {
  auto old = Attach();
  old->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  Send("kept");
  old->Receive("ha");

  Connect();
  EXPECT_EQ(old->lingerCalls, 0);
  EXPECT_EQ(stream->GetSendQueueLength(), 2U);
  auto fresh = NewTransport();
  manager.Last().Complete(0, fresh.Get());

  Send("+new");
  EXPECT_EQ(fresh->wire, "pt+new");
  fresh->Receive("lf;");
  EXPECT_EQ(stream->frames, Strings{"half"});
}

TEST_F(CZARNIPCStreamBaseRules, FailedConnectClosesAndReportsItAsPeerDisconnect) {
  Connect();
  manager.Last().Complete(ECONNREFUSED, nullptr);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(" + std::to_string(ECONNREFUSED) + ")"});
}

TEST_F(CZARNIPCStreamBaseRules, EndOfTheTransportIsClosedThroughTheVirtualClose) {
  struct Overriding : RecordingStream {
    int closes = 0;
    keelbase::AWResult Close(long reason) override {
      ++closes;
      EXPECT_EQ(reason, 0);
      EXPECT_TRUE(IsClosed());
      EXPECT_TRUE(upcalls.empty());  // the owner hears afterwards
      return RecordingStream::Close(reason);
    }
  };
  Overriding overriding;
  auto transport = NewTransport();
  Handle handle(transport.Get());
  overriding.SetTransportHandle(handle);
  transport->End(0);
  EXPECT_EQ(overriding.closes, 1);
  EXPECT_EQ(overriding.upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CZARNIPCStreamBaseRules, EndOfTheTransportReleasesTheConnectorAndDropsBothBuffers) {
  auto transport = ConnectFully();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("waiting");
  transport->Receive("half");
  transport->End(0);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  auto fresh = Attach();
  fresh->Receive("whole;");
  EXPECT_EQ(stream->frames, Strings{"whole"});
}

// --- receiving ---

TEST_F(CZARNIPCStreamBaseRules, BytesOfAnotherTransportAreIgnoredAndLeftUntouched) {
  auto other = NewTransport();
  CAWMessageBlock block(8);
  block.Write("other;", 6);
  stream->OnReceive(block, other.Get(), nullptr);
  EXPECT_EQ(block.GetLength(), 6U);
  EXPECT_TRUE(stream->views.empty());
}

TEST_F(CZARNIPCStreamBaseRules, CountBeyondTheBytesTearsTheConnectionDownOnce) {
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  log.clear();
  transport->Receive("bytes");
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(log, (CallLog{"transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(Send("late"), AW_ERROR_NOT_INITIALIZED);
}

TEST_F(CZARNIPCStreamBaseRules, LargestPossibleCountIsAViolationToo) {
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t) { return static_cast<std::size_t>(-1); };
  transport->Receive("bytes");
  EXPECT_EQ(stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

TEST_F(CZARNIPCStreamBaseRules, CountIsComparedWithWhatRemainsAfterEarlierFrames) {
  auto transport = Attach();
  // 6 would fit the first view but not the second.
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    return stream->views.size() == 1 ? 4 : 6;
  };
  transport->Receive("one;two;");
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(stream->views.size(), 2U);
}

TEST_F(CZARNIPCStreamBaseRules, TeardownCancelsTheConnectorFirst) {
  auto transport = ConnectFully();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  log.clear();
  transport->Receive("bytes");
  EXPECT_EQ(log,
            (CallLog{"connector.CancelConnect", "transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseRules, TeardownInTheReceivePathWritesNoTraceLine) {
  auto transport = Attach();
  TraceLines trace;
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("bytes");
  EXPECT_TRUE(trace.Get().empty());
}

TEST_F(CZARNIPCStreamBaseRules, TeardownDropsBothBuffersButLosesNoAcceptedByte) {
  auto transport = Attach();
  transport->Receive("half");
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("accepted;");
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("x");
  EXPECT_EQ(transport->lingerData, "accepted;");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);

  stream->onMessage = nullptr;
  auto fresh = Attach();
  fresh->Receive("whole;");
  EXPECT_EQ(stream->frames, Strings{"whole"});
}

TEST_F(CZARNIPCStreamBaseRules, NothingIsDeliveredAfterTheTeardown) {
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("one;two;");
  EXPECT_EQ(stream->views.size(), 1U);
  CAWMessageBlock block(8);
  block.Write("late;", 5);
  stream->OnReceive(block, transport.Get(), nullptr);
  EXPECT_EQ(stream->views.size(), 1U);
  EXPECT_EQ(stream->upcalls.size(), 1U);
}

TEST_F(CZARNIPCStreamBaseRules, ReconnectInsideOnPeerDisconnectAfterATeardownStays) {
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  stream->onEnd = [&] { Connect(2); };
  transport->Receive("bytes");
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(manager.Last().IsPending());
}

TEST_F(CZARNIPCStreamBaseRules, DeletingItselfAfterAnOverlongCountIsAllowed) {
  auto transport = Attach();
  DeleteAtTheEnd();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("one;two;");
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(transport->GetReferences(), 1U);
}

// --- sending ---

TEST_F(CZARNIPCStreamBaseRules, OnSendWithoutATransportDoesNothing) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("waits;");
  Connect();  // keeps the queue, drops the transport
  stream->OnSend(transport.Get(), nullptr);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  EXPECT_EQ(transport->wire, "");
}

}  // namespace
}  // namespace zarn::test
