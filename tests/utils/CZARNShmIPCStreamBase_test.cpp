// CZARNShmIPCStreamBase_test.cpp - what only the shared-memory stream does. The rules of all
// streams are checked in Stream*_test.cpp. Over scripted transports.
#include "zarn/utils/CZARNShmIPCStreamBase.h"

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
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNShmIPCStreamBaseRules : public ::testing::Test, public StreamFixture<OverShm> {
 protected:
  // A connection with "queued" in the send queue and "half" received.
  Transport AttachWithFullBuffers() {
    Transport transport = Attach();
    transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
    Send("queued");
    transport->Receive("half");
    return transport;
  }
  void ExpectEmptyBuffers() {
    EXPECT_EQ(stream->GetSendQueueLength(), 0U);
    auto fresh = Attach();
    EXPECT_EQ(Send("new"), AW_OK);
    EXPECT_EQ(fresh->wire, "new");
    fresh->Receive("whole;");
    EXPECT_EQ(stream->frames, Strings{"whole"});
  }
};

// --- accessors ---

TEST_F(CZARNShmIPCStreamBaseRules, ReceiveBufferSizeIsStoredUpTo32768) {
  const auto set = [&](std::uint32_t size) { stream->SetRcvBufferSize(size); };
  const StoredSize stored(*stream, set, 32768);  // has set 100
  for (const std::uint32_t size : {65536U, 32769U, 0xFFFFFFFFU, 32768U}) {
    set(0);
    EXPECT_EQ(stored.Get(), 0U);
    set(size);
    EXPECT_EQ(stored.Get(), 32768U) << size;
  }
  set(32767);
  EXPECT_EQ(stored.Get(), 32767U);
}

TEST_F(CZARNShmIPCStreamBaseRules, SendBufferSizeIsStoredAsItIs) {
  const auto set = [&](std::uint32_t size) { stream->SetSendBufferSize(size); };
  const StoredSize stored(*stream, set, 32768);
  for (const std::uint32_t size : {0U, 65536U, 0xFFFFFFFFU}) {
    set(size);
    EXPECT_EQ(stored.Get(), size);
  }
}

// --- connecting ---

TEST_F(CZARNShmIPCStreamBaseRules, ConnectWithoutAConnectorAnswers10001WhateverTheManagerSaid) {
  manager.createResult = 10012;
  EXPECT_EQ(Connect(), AW_ERROR_FAILURE);
  manager.createResult = AW_OK;
  manager.createsNothing = true;
  EXPECT_EQ(Connect(), AW_ERROR_FAILURE);
  EXPECT_TRUE(log.empty());
}

TEST_F(CZARNShmIPCStreamBaseRules, ConnectClearsClosedBeforeItLooksForAConnector) {
  stream->Close(0);
  manager.createResult = AW_ERROR_FAILURE;
  EXPECT_EQ(Connect(), AW_ERROR_FAILURE);
  EXPECT_FALSE(stream->IsClosed());
}

TEST_F(CZARNShmIPCStreamBaseRules, ConnectDropsBothBuffersButNoAcceptedByte) {
  auto old = AttachWithFullBuffers();
  Connect();
  EXPECT_EQ(old->lingerData, "queued");
  EXPECT_EQ(old->disconnects, std::vector<long>{0});
  ExpectEmptyBuffers();
}

TEST_F(CZARNShmIPCStreamBaseRules, ConnectDropsBothBuffersAlsoWhenNoConnectorCanBeMade) {
  auto old = AttachWithFullBuffers();
  manager.createResult = AW_ERROR_FAILURE;
  Connect();
  EXPECT_EQ(old->disconnects, std::vector<long>{0});
  EXPECT_EQ(old->GetReferences(), 1U);
  ExpectEmptyBuffers();
}

TEST_F(CZARNShmIPCStreamBaseRules, ConnectCancelsThenDisconnectsThenStarts) {
  auto old = ConnectFully();
  log.clear();
  Connect(2);
  EXPECT_EQ(log, (CallLog{"connector.CancelConnect", "transport.Disconnect(0)",
                          "connector.AsyncConnect"}));
  EXPECT_EQ(manager.connectors[0]->GetReferences(), 1U);
}

TEST_F(CZARNShmIPCStreamBaseRules,
       FailedConnectIsToldByOnConnectFailureAndNeverByOnPeerDisconnect) {
  Connect();
  manager.Last().Complete(ECONNREFUSED, nullptr);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(stream->upcalls, Strings{"OnConnectFailure(" + std::to_string(ECONNREFUSED) + ")"});
  EXPECT_EQ(manager.Last().cancels, 0);
}

// --- the end of the connection ---

TEST_F(CZARNShmIPCStreamBaseRules, EndKeepsBothBuffersForAnotherTransport) {
  auto old = AttachWithFullBuffers();
  old->End(ECONNRESET);
  EXPECT_EQ(old->lingerCalls, 0);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);

  auto fresh = Attach();
  EXPECT_EQ(Send("+new"), AW_OK);
  EXPECT_EQ(fresh->wire, "queued+new");
  fresh->Receive("+rest;");
  EXPECT_EQ(stream->frames, Strings{"half+rest"});
}

TEST_F(CZARNShmIPCStreamBaseRules, ConnectAfterTheEndDropsBothBuffers) {
  AttachWithFullBuffers()->End(0);
  Connect();
  ExpectEmptyBuffers();
}

TEST_F(CZARNShmIPCStreamBaseRules, CloseAfterTheEndDropsBothBuffers) {
  AttachWithFullBuffers()->End(0);
  stream->Close(0);
  ExpectEmptyBuffers();
}

TEST_F(CZARNShmIPCStreamBaseRules, EndLeavesTheConnectorAndDoesNotCallClose) {
  struct Overriding : RecordingShmStream {
    int closes = 0;
    AWResult Close(long reason) override {
      ++closes;
      return RecordingShmStream::Close(reason);
    }
  };
  Overriding overriding;
  overriding.Connect(OverShm::Endpoint(1), nullptr);
  auto transport = NewTransport();
  manager.Last().Complete(0, transport.Get());
  transport->End(0);
  EXPECT_EQ(overriding.closes, 0);
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  EXPECT_TRUE(overriding.IsClosed());
}

TEST_F(CZARNShmIPCStreamBaseRules, AfterTheEndNothingIsAddedAndNothingIsOffered) {
  auto transport = AttachWithFullBuffers();
  transport->End(0);
  EXPECT_EQ(Send("late"), AW_ERROR_FAILURE);
  stream->OnSend(transport.Get(), nullptr);
  EXPECT_EQ(stream->GetSendQueueLength(), 6U);
  EXPECT_EQ(transport->offered.size(), 1U);
}

// --- receiving ---

TEST_F(CZARNShmIPCStreamBaseRules, BytesOfAnyTransportAreTaken) {
  auto transport = Attach();
  auto other = NewTransport();
  transport->Receive("ha");
  const auto block = Chain({"lf;oth"});
  stream->OnReceive(*block, other.Get(), nullptr);
  EXPECT_EQ(block->GetLength(), 0U);
  stream->OnReceive(*Chain({"er;"}), nullptr, nullptr);
  EXPECT_EQ(stream->frames, (Strings{"half", "other"}));
  EXPECT_TRUE(other->disconnects.empty());
}

TEST_F(CZARNShmIPCStreamBaseRules,
       CountBeyondTheBytesLeavesTheStreamOpenAndTheBytesAreOfferedAgain) {
  TraceLines trace;
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  log.clear();
  transport->Receive("bytes");
  EXPECT_EQ(stream->views, Strings{"bytes"});
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(transport->GetReferences(), 2U);
  EXPECT_TRUE(trace.Get().empty());

  transport->Receive("+");
  EXPECT_EQ(stream->views.back(), "bytes+");
  stream->onMessage = nullptr;
  transport->Receive("more;");
  EXPECT_EQ(stream->frames, Strings{"bytes+more"});
}

TEST_F(CZARNShmIPCStreamBaseRules, LargestPossibleCountLeavesTheStreamOpenToo) {
  auto transport = Attach();
  stream->onMessage = [](const char*, std::size_t) { return static_cast<std::size_t>(-1); };
  transport->Receive("bytes");
  EXPECT_FALSE(stream->IsClosed());
  stream->onMessage = nullptr;
  transport->Receive(";");
  EXPECT_EQ(stream->frames, Strings{"bytes"});
}

TEST_F(CZARNShmIPCStreamBaseRules, CountIsComparedWithWhatRemainsAfterEarlierFramesWhichAreGone) {
  auto transport = Attach();
  // 6 would fit the first view but not the second.
  stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    return stream->views.size() == 1 ? 4 : 6;
  };
  transport->Receive("one;two;");
  EXPECT_EQ(stream->views, (Strings{"one;two;", "two;"}));
  stream->onMessage = nullptr;
  transport->Receive("three;");
  EXPECT_EQ(stream->frames, (Strings{"two", "three"}));
}

TEST_F(CZARNShmIPCStreamBaseRules, BytesBehindACountBeyondThemCountTowardsTheReceiveLimit) {
  auto transport = Attach();
  stream->SetReceiveLimit(10);
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("eleven byte");
  EXPECT_TRUE(transport->IsReadingStopped());
}

TEST_F(CZARNShmIPCStreamBaseRules, CountBeyondTheBytesFromAHandlerThatClosedIsAClose) {
  auto transport = Attach();
  stream->onMessage = [&](const char*, std::size_t len) {
    stream->Close(5);
    return len + 1;
  };
  transport->Receive("bytes");
  EXPECT_EQ(stream->upcalls, Strings{"OnClose"});
  EXPECT_EQ(transport->disconnects, std::vector<long>{5});
  stream->onMessage = nullptr;
  ExpectEmptyBuffers();
}

TEST_F(CZARNShmIPCStreamBaseRules,
       TeardownDisconnectsTheTransportCallsOnCloseAndLeavesTheConnector) {
  auto transport = ConnectFully();
  // Closed by something that holds on to both: another connect that failed.
  DuringFirstMessage([&] { stream->OnShmIPCConnectIndication(1, nullptr, nullptr); });
  log.clear();
  transport->Receive("one;two;");
  EXPECT_EQ(log, (CallLog{"OnConnectFailure(1)", "transport.Disconnect(0)", "OnClose"}));
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(manager.Last().cancels, 0);
  EXPECT_EQ(manager.Last().GetReferences(), 2U);
  EXPECT_EQ(Send("late"), AW_ERROR_FAILURE);
}

TEST_F(CZARNShmIPCStreamBaseRules, BytesForAClosedStreamAreOfferedOnceAndEndInOnClose) {
  auto transport = Attach();
  stream->Close(0);
  stream->OnReceive(*Chain({"one;two;"}), transport.Get(), nullptr);
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(stream->upcalls, Strings{"OnClose"});
}

}  // namespace
}  // namespace zarn::test
