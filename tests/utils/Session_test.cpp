// Session_test.cpp - what the sessions over TCP, TLS and TLS over pseudo-TCP do alike, and other
// streams do not. Over scripted transports.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "Blocks.h"
#include "NetworkThread.h"
#include "SessionFixture.h"
#include "StoredSize.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWInetAddr;
using Strings = std::vector<std::string>;

template <class World>
class SessionRules : public ::testing::Test, public SessionFixture<World> {};

TYPED_TEST_SUITE(SessionRules, SessionWorlds, WorldNames);

// --- accessors ---

TYPED_TEST(SessionRules, ReceiveBufferSizeIsStoredUpTo32768) {
  const auto set = [&](std::uint32_t size) { this->stream->SetRcvBufferSize(size); };
  const StoredSize stored(*this->stream, set, 32768);
  for (const std::uint32_t size : {100000U, 32769U, 0xFFFFFFFFU, 32768U}) {
    set(0);
    EXPECT_EQ(stored.Get(), 0U);
    set(size);
    EXPECT_EQ(stored.Get(), 32768U) << size;
  }
}

TYPED_TEST(SessionRules, SendBufferSizeIsStoredAsItIs) {
  const auto set = [&](std::uint32_t size) { this->stream->SetSendBufferSize(size); };
  const StoredSize stored(*this->stream, set, 32768);
  set(100000);
  EXPECT_EQ(stored.Get(), 100000U);
}

TYPED_TEST(SessionRules, AddressesAreReadPeerFirstAndToldAsTextAndNumberAndByPointer) {
  auto transport = this->NewTransport();
  transport->peer = CAWInetAddr("10.0.0.1", 1000);
  transport->local = CAWInetAddr("10.0.0.2", 2000);
  typename TestFixture::Handle handle(transport.Get());
  this->stream->SetTransportHandle(handle);
  EXPECT_EQ(transport->optionsRead, (std::vector<int>{105, 104}));
  std::string ip;
  this->stream->GetPeerIP(ip);
  EXPECT_EQ(ip, "10.0.0.1");
  this->stream->GetLocalIP(ip);
  EXPECT_EQ(ip, "10.0.0.2");
  EXPECT_EQ(this->stream->GetPeerPort(), 1000);
  EXPECT_EQ(this->stream->GetLocalPort(), 2000);
  EXPECT_EQ(this->stream->GetPeerAddr(), transport->peer);
  EXPECT_EQ(this->stream->GetLocalAddr(), transport->local);
}

// --- connecting ---

TYPED_TEST(SessionRules, ConnectReturnsTheManagersErrorAndLeavesAClosedSessionClosed) {
  this->stream->Close(0);
  this->manager.createResult = 10012;
  EXPECT_EQ(this->Connect(), 10012U);
  EXPECT_TRUE(this->stream->IsClose());
}

TYPED_TEST(SessionRules, ConnectCancelsThenDisconnectsThenStartsAndKeepsBothBuffers) {
  auto old = this->ConnectWithFullBuffers();
  this->log.clear();
  this->Connect(2);
  EXPECT_EQ(this->log, (CallLog{"connector.CancelConnect", "transport.Disconnect(0)",
                                "connector.AsyncConnect"}));
  EXPECT_EQ(this->stream->GetSendQueueLength(), 6U);
  auto fresh = this->NewTransport();
  this->manager.Last().Complete(0, fresh.Get());
  this->Send("+new");
  EXPECT_EQ(fresh->wire, "queued+new");
  fresh->Receive("+rest;");
  EXPECT_EQ(this->stream->frames, Strings{"half+rest"});
}

TYPED_TEST(SessionRules, FailedConnectClosesAndReportsItAsPeerDisconnect) {
  this->Connect();
  this->manager.Last().Complete(ETIMEDOUT, nullptr);
  EXPECT_TRUE(this->stream->IsClose());
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(" + std::to_string(ETIMEDOUT) + ")"});
  EXPECT_EQ(this->manager.Last().cancels, 0);
}

// --- the end of the connection ---

TYPED_TEST(SessionRules, EndKeepsBothBuffersAndTheConnectorAndDoesNotCallClose) {
  auto old = this->ConnectWithFullBuffers();
  old->End(ECONNRESET);
  EXPECT_TRUE(this->stream->IsClose());
  EXPECT_EQ(this->manager.Last().cancels, 0);
  EXPECT_EQ(this->manager.Last().GetReferences(), 2U);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 6U);
  auto fresh = this->Attach();
  fresh->Receive("+rest;");
  EXPECT_EQ(this->stream->frames, Strings{"half+rest"});
}

TYPED_TEST(SessionRules, CloseAfterTheEndDropsBothBuffers) {
  auto old = this->ConnectWithFullBuffers();
  old->End(0);
  this->stream->Close(0);
  EXPECT_EQ(this->manager.Last().cancels, TypeParam::kCloseCancels ? 1 : 0);
  this->ExpectEmptyBuffers();
}

// --- receiving ---

TYPED_TEST(SessionRules, BytesOfAnyTransportAreParsedAndTheBlockIsLeftAsItIs) {
  auto transport = this->Attach();
  auto other = this->NewTransport();
  transport->Receive("ha");
  auto block = Chain({"lf;oth"});
  TypeParam::Receive(*this->stream, *block, other.Get());
  EXPECT_EQ(block->GetChainedLength(), 6U);
  TypeParam::Receive(*this->stream, *Chain({"er;"}), nullptr);
  EXPECT_EQ(this->stream->frames, (Strings{"half", "other"}));
  EXPECT_TRUE(other->disconnects.empty());
}

TYPED_TEST(SessionRules, CountBeyondTheBytesKeepsTheConnectionOpenAndTheBytesAreOfferedAgain) {
  TraceLines trace;
  auto transport = this->Attach();
  this->stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  this->log.clear();
  transport->Receive("bytes");
  EXPECT_FALSE(this->stream->IsClose());
  EXPECT_TRUE(this->log.empty());
  EXPECT_TRUE(trace.Get().empty());
  transport->Receive("+");
  EXPECT_EQ(this->stream->views, (Strings{"bytes", "bytes+"}));
  this->stream->onMessage = nullptr;
  transport->Receive("more;");
  EXPECT_EQ(this->stream->frames, Strings{"bytes+more"});
}

TYPED_TEST(SessionRules, FramesBeforeACountBeyondTheBytesAreGone) {
  auto transport = this->Attach();
  this->stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    return this->stream->views.size() == 1 ? 4
                                           : 6;  // 6 would fit the first view but not the second
  };
  transport->Receive("one;two;");
  this->stream->onMessage = nullptr;
  transport->Receive("three;");
  EXPECT_EQ(this->stream->frames, (Strings{"two", "three"}));
}

TYPED_TEST(SessionRules, CountBeyondTheBytesFromAHandlerThatClosedIsAClose) {
  auto transport = this->Attach();
  this->stream->onMessage = [&](const char*, std::size_t len) {
    this->stream->Close(5);
    return len + 1;
  };
  transport->Receive("bytes");
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
  EXPECT_EQ(transport->disconnects, std::vector<long>{5});
  this->stream->onMessage = nullptr;
  this->ExpectEmptyBuffers();
}

TYPED_TEST(SessionRules, TeardownDisconnectsTheTransportAndLeavesTheConnector) {
  auto transport = this->ConnectWithFullBuffers();
  // Closed by something that holds on to both: another connect that failed.
  this->stream->onMessage = [&](const char*, std::size_t) -> std::size_t {
    TypeParam::FailConnect(*this->stream, 1);
    return 0;
  };
  this->log.clear();
  transport->Receive("x");
  EXPECT_EQ(this->log, (CallLog{"OnPeerDisconnect(1)", "transport.LingerData",
                                "transport.Disconnect(0)", "OnPeerDisconnect(0)"}));
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(this->manager.Last().cancels, 0);
  EXPECT_EQ(this->manager.Last().GetReferences(), 2U);
  this->stream->onMessage = nullptr;
  this->ExpectEmptyBuffers();
}

TYPED_TEST(SessionRules, BytesForAClosedSessionAreOfferedOnceAndTornDown) {
  this->stream->Close(0);
  TypeParam::Receive(*this->stream, *Chain({"one;two;"}), nullptr);
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_EQ(this->stream->upcalls, Strings{"OnPeerDisconnect(0)"});
}

// --- sending ---

TYPED_TEST(SessionRules, SendWithoutATransportAnswers10002) {
  EXPECT_EQ(this->Send("bytes"), 10002U);
}

TYPED_TEST(SessionRules, WhatIsRefusedWaitsForTheSendEvent) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  EXPECT_EQ(this->Send("one"), AW_OK);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 1U);
  transport->ReadyToSend();
  EXPECT_EQ(transport->wire, "one");
}

}  // namespace
}  // namespace zarn::test
