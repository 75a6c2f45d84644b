// CZARNIPCStreamBase_test.cpp - connecting, attaching and closing a stream, over a scripted
// transport.
#include "zarn/utils/CZARNIPCStreamBase.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "FakeIpc.h"
#include "NetworkThread.h"
#include "RecordingStream.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWIPCAddr;

class CZARNIPCStreamBaseConnect : public ::testing::Test, public StreamFixture {};

// --- construction ---

TEST_F(CZARNIPCStreamBaseConnect, NewStreamIsIdle) {
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_FALSE(stream->IsSendOverBuffer());
  EXPECT_FALSE(stream->IsRcvOverBuffer());
  EXPECT_EQ(stream->GetPeerAddr(), CAWIPCAddr());
  EXPECT_EQ(stream->GetLocalAddr(), CAWIPCAddr());
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  EXPECT_TRUE(log.empty());
}

TEST_F(CZARNIPCStreamBaseConnect, BufferSizesAreNotEnforced) {
  stream->SetSendBufferSize(1);
  stream->SetRcvBufferSize(1);
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(Send("much more than one byte"), AW_OK);
  transport->Receive("much more than one byte");
  EXPECT_FALSE(stream->IsSendOverBuffer());
  EXPECT_FALSE(stream->IsRcvOverBuffer());
  EXPECT_FALSE(stream->IsClosed());
}

// --- Connect ---

TEST_F(CZARNIPCStreamBaseConnect, ConnectAsksForAConnectorOfKindOneAndStartsIt) {
  CAWIPCAddr local("/own");
  EXPECT_EQ(stream->Connect(CAWIPCAddr("/peer"), &local), AW_OK);
  EXPECT_EQ(manager.kinds, std::vector<int>{1});
  EXPECT_EQ(manager.Last().connects, 1);
  EXPECT_EQ(manager.Last().peerPath, "/peer");
  EXPECT_EQ(manager.Last().localPath, "/own");
  EXPECT_EQ(manager.Last().parameter, 0U);
  EXPECT_TRUE(manager.Last().IsPending());
  EXPECT_FALSE(stream->IsClosed());
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectPassesANullLocalAddressOn) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  EXPECT_FALSE(manager.Last().hadLocal);
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectReturnsTheManagersError) {
  manager.createResult = 10012;
  EXPECT_EQ(stream->Connect(CAWIPCAddr("/peer"), nullptr), 10012U);
  EXPECT_TRUE(log.empty());
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectThatFindsNoConnectorLeavesAClosedStreamClosed) {
  stream->Close(0);
  manager.createResult = AW_ERROR_FAILURE;
  EXPECT_EQ(stream->Connect(CAWIPCAddr("/peer"), nullptr), AW_ERROR_FAILURE);
  EXPECT_TRUE(stream->IsClosed());
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectClearsClosed) {
  stream->Close(0);
  EXPECT_EQ(stream->Connect(CAWIPCAddr("/peer"), nullptr), AW_OK);
  EXPECT_FALSE(stream->IsClosed());
}

TEST_F(CZARNIPCStreamBaseConnect, SecondConnectCancelsThePendingOne) {
  stream->Connect(CAWIPCAddr("/first"), nullptr);
  stream->Connect(CAWIPCAddr("/second"), nullptr);
  ASSERT_EQ(manager.connectors.size(), 2U);
  EXPECT_EQ(manager.connectors[0]->cancels, 1);
  EXPECT_EQ(manager.connectors[0]->GetReferences(), 1U);
  EXPECT_TRUE(manager.connectors[1]->IsPending());
  EXPECT_TRUE(stream->connecteds.empty());
  EXPECT_TRUE(stream->peerDisconnects.empty());
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectDisconnectsTheHeldTransportWithReasonZero) {
  auto transport = Attach();
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_TRUE(stream->peerDisconnects.empty());
}

TEST_F(CZARNIPCStreamBaseConnect, MessageSentWhileAConnectIsPendingIsRefused) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  EXPECT_EQ(Send("early;"), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectWithoutCloseKeepsBothBuffers) {
  auto old = Attach();
  old->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  Send("kept");
  old->Receive("ha");

  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  EXPECT_EQ(old->lingerCalls, 0);
  EXPECT_EQ(stream->GetSendQueueLength(), 2U);
  auto fresh = NewTransport();
  manager.Last().Complete(0, fresh.Get());

  Send("+new");
  EXPECT_EQ(fresh->wire, "pt+new");
  fresh->Receive("lf;");
  EXPECT_EQ(stream->frames, std::vector<std::string>{"half"});
}

TEST_F(CZARNIPCStreamBaseConnect, CloseThenConnectStartsWithEmptyBuffers) {
  auto old = Attach();
  old->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  Send("lost");
  old->Receive("ha");

  stream->Close(0);
  auto fresh = ConnectFully();

  Send("new");
  EXPECT_EQ(fresh->wire, "new");
  fresh->Receive("lf;");
  EXPECT_EQ(stream->frames, std::vector<std::string>{"lf"});
}

// --- OnIPCConnectIndication ---

TEST_F(CZARNIPCStreamBaseConnect, FailedConnectClosesAndReportsItAsPeerDisconnect) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  manager.Last().Complete(ECONNREFUSED, nullptr);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{ECONNREFUSED});
  EXPECT_TRUE(stream->connecteds.empty());
}

TEST_F(CZARNIPCStreamBaseConnect, SuccessfulConnectOpensTheTransportAndThenTellsTheOwner) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  log.clear();
  auto transport = NewTransport();
  manager.Last().Complete(0, transport.Get());
  EXPECT_EQ(log, (CallLog{"transport.OpenWithSink", "OnConnected(0)"}));
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 2U);  // the test's and the stream's
  EXPECT_EQ(Send("hello;"), AW_OK);
  EXPECT_EQ(transport->wire, "hello;");
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectedStreamKnowsBothAddresses) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  auto transport = NewTransport();
  transport->peerPath = "/root/zarn/ipc/1_2";
  transport->localPath = "/root/zarn/ipc/3_4";
  manager.Last().Complete(0, transport.Get());
  EXPECT_EQ(stream->GetPeerAddr(), CAWIPCAddr("/root/zarn/ipc/1_2"));
  EXPECT_EQ(stream->GetLocalAddr(), CAWIPCAddr("/root/zarn/ipc/3_4"));
}

TEST_F(CZARNIPCStreamBaseConnect, ConnectionThatCannotBeOpenedIsReportedAsPeerDisconnect) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  auto transport = NewTransport();
  transport->openResult = AW_ERROR_FAILURE;
  manager.Last().Complete(0, transport.Get());
  EXPECT_TRUE(stream->connecteds.empty());
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{AW_ERROR_FAILURE});
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseConnect, SuccessWithoutATransportIsReportedAsPeerDisconnect) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  manager.Last().Complete(0, nullptr);
  EXPECT_TRUE(stream->connecteds.empty());
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{AW_ERROR_FAILURE});
  EXPECT_TRUE(stream->IsClosed());
}

TEST_F(CZARNIPCStreamBaseConnect, OwnerMaySendFromInsideOnConnected) {
  stream->onConnected = [&](long) { EXPECT_EQ(Send("hello;"), AW_OK); };
  EXPECT_EQ(ConnectFully()->wire, "hello;");
}

TEST_F(CZARNIPCStreamBaseConnect, OwnerMayCloseInsideOnConnected) {
  stream->onConnected = [&](long) { stream->Close(7); };
  auto transport = ConnectFully();
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(transport->disconnects, std::vector<long>{7});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

// --- SetTransportHandle ---

TEST_F(CZARNIPCStreamBaseConnect, NullHandleIsRefusedAndChangesNothing) {
  auto transport = Attach();
  log.clear();
  Handle none;
  EXPECT_EQ(stream->SetTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(transport->GetReferences(), 2U);
  EXPECT_EQ(Send("still here;"), AW_OK);
  EXPECT_EQ(transport->wire, "still here;");
}

TEST_F(CZARNIPCStreamBaseConnect, NullHandleLeavesAClosedStreamClosed) {
  stream->Close(0);
  Handle none;
  EXPECT_EQ(stream->SetTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(stream->IsClosed());
}

TEST_F(CZARNIPCStreamBaseConnect, HandleIsOpenedWithTheStreamAsSink) {
  auto transport = NewTransport();
  transport->peerPath = "/p";
  transport->localPath = "/l";
  Handle handle(transport.Get());
  EXPECT_EQ(stream->SetTransportHandle(handle), AW_OK);
  EXPECT_EQ(transport->GetSink(), static_cast<fipc::IAWIPCTransportSink*>(stream.get()));
  EXPECT_EQ(stream->GetPeerAddr().GetPath(), "/p");
  EXPECT_EQ(stream->GetLocalAddr().GetPath(), "/l");
  EXPECT_TRUE(handle);                        // the caller's own reference stays
  EXPECT_EQ(transport->GetReferences(), 3U);  // test, handle, stream
  EXPECT_TRUE(stream->connecteds.empty());    // attaching is not connecting
}

TEST_F(CZARNIPCStreamBaseConnect, NewHandleReplacesTheHeldTransport) {
  auto old = Attach();
  auto fresh = Attach();
  EXPECT_EQ(old->disconnects, std::vector<long>{0});
  EXPECT_EQ(old->GetReferences(), 1U);
  EXPECT_EQ(fresh->GetReferences(), 2U);
  Send("x;");
  EXPECT_EQ(fresh->wire, "x;");
  EXPECT_TRUE(stream->peerDisconnects.empty());
}

TEST_F(CZARNIPCStreamBaseConnect, HandleClearsClosed) {
  stream->Close(0);
  Attach();
  EXPECT_FALSE(stream->IsClosed());
}

TEST_F(CZARNIPCStreamBaseConnect, HandleThatDoesNotOpenAnswers10001AndStaysHeld) {
  auto transport = NewTransport();
  transport->openResult = AW_ERROR_FAILURE;
  transport->peerPath = "/p";
  Handle handle(transport.Get());
  EXPECT_EQ(stream->SetTransportHandle(handle), AW_ERROR_FAILURE);
  EXPECT_EQ(transport->GetReferences(), 3U);
  EXPECT_EQ(stream->GetPeerAddr(), CAWIPCAddr());  // addresses are only asked for once it is open
}

// --- OnDisconnect ---

TEST_F(CZARNIPCStreamBaseConnect, EndOfTheTransportClosesWithoutDisconnectingAndThenReports) {
  auto transport = Attach();
  log.clear();
  transport->End(ECONNRESET);
  EXPECT_EQ(log, CallLog{"OnPeerDisconnect(" + std::to_string(ECONNRESET) + ")"});
  EXPECT_TRUE(transport->disconnects.empty());
  EXPECT_EQ(transport->lingerCalls, 0);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(Send("late;"), AW_ERROR_NOT_INITIALIZED);
}

TEST_F(CZARNIPCStreamBaseConnect, EndOfTheTransportIsClosedThroughTheVirtualClose) {
  struct Overriding : RecordingStream {
    int closes = 0;
    keelbase::AWResult Close(long reason) override {
      ++closes;
      EXPECT_EQ(reason, 0);
      EXPECT_TRUE(IsClosed());
      EXPECT_TRUE(peerDisconnects.empty());  // the owner hears afterwards
      return RecordingStream::Close(reason);
    }
  };
  Overriding overriding;
  auto transport = NewTransport();
  Handle handle(transport.Get());
  overriding.SetTransportHandle(handle);
  transport->End(0);
  EXPECT_EQ(overriding.closes, 1);
  EXPECT_EQ(overriding.peerDisconnects, std::vector<long>{0});
}

TEST_F(CZARNIPCStreamBaseConnect, EndOfTheTransportReleasesTheConnectorAndDropsBothBuffers) {
  auto transport = ConnectFully();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("waiting");
  transport->Receive("half");
  transport->End(0);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
  auto fresh = Attach();
  fresh->Receive("whole;");
  EXPECT_EQ(stream->frames, std::vector<std::string>{"whole"});
}

// --- Close ---

TEST_F(CZARNIPCStreamBaseConnect, CloseDisconnectsWithTheGivenReasonAndMakesNoUpcall) {
  auto transport = ConnectFully();
  log.clear();
  EXPECT_EQ(stream->Close(42), AW_OK);
  EXPECT_EQ(log, (CallLog{"transport.Disconnect(42)", "connector.CancelConnect"}));
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseConnect, CloseCancelsAPendingConnect) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  stream->Close(0);
  EXPECT_EQ(manager.Last().cancels, 1);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseConnect, CloseOfAnIdleStreamMarksItClosed) {
  EXPECT_EQ(stream->Close(1), AW_OK);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(stream->Close(2), AW_OK);
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_TRUE(log.empty());
}

TEST_F(CZARNIPCStreamBaseConnect, CloseHandsWhatIsQueuedToTheTransportBeforeDisconnecting) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 4);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("sentqueued;");
  Send("more;");
  log.clear();
  stream->Close(0);
  EXPECT_EQ(log, (CallLog{"transport.LingerData", "transport.Disconnect(0)"}));
  EXPECT_EQ(transport->wire + transport->lingerData, "sentqueued;more;");
  EXPECT_EQ(stream->GetSendQueueLength(), 0U);
}

TEST_F(CZARNIPCStreamBaseConnect, CloseWithAnEmptyQueueHandsNothingOver) {
  auto transport = Attach();
  Send("all of it;");
  stream->Close(0);
  EXPECT_EQ(transport->lingerCalls, 0);
}

// --- destruction ---

TEST_F(CZARNIPCStreamBaseConnect, DestructorDisconnectsWithReasonZeroAndCancelsTheConnector) {
  auto transport = ConnectFully();
  log.clear();
  stream.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(manager.Last().cancels, 1);
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseConnect, DestructorLosesNothingThatWasAccepted) {
  auto transport = Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("goodbye;");
  stream.reset();
  EXPECT_EQ(transport->lingerData, "goodbye;");
}

TEST_F(CZARNIPCStreamBaseConnect, DestructorOfAConnectingStreamCancels) {
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  stream.reset();
  EXPECT_FALSE(manager.Last().IsPending());
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

// --- threads ---

#ifndef NDEBUG
using CZARNIPCStreamBaseDeathTest = CZARNIPCStreamBaseConnect;

TEST_F(CZARNIPCStreamBaseDeathTest, SendFromAnotherThreadStopsADebugBuildAndNamesTheOperation) {
  EXPECT_DEATH(
      {
        Attach();
        std::thread([&] { Send("x;"); }).join();
      },
      "CZARNIPCStreamBase::SendMsg");
}

TEST_F(CZARNIPCStreamBaseDeathTest, CloseFromAnotherThreadStopsADebugBuild) {
  EXPECT_DEATH(
      {
        stream->Connect(CAWIPCAddr("/peer"), nullptr);
        std::thread([&] { stream->Close(0); }).join();
      },
      "CZARNIPCStreamBase::Close");
}

TEST_F(CZARNIPCStreamBaseDeathTest, ConnectFromAnotherThreadStopsADebugBuild) {
  EXPECT_DEATH(
      {
        Attach();
        std::thread([&] { stream->Connect(CAWIPCAddr("/peer"), nullptr); }).join();
      },
      "CZARNIPCStreamBase::Connect");
}
#endif

TEST_F(CZARNIPCStreamBaseConnect, StreamBelongsToTheThreadOfItsFirstConnectNotOfItsConstruction) {
  std::unique_ptr<RecordingStream> made;
  std::thread([&] { made = std::make_unique<RecordingStream>(); }).join();
  EXPECT_EQ(made->Connect(CAWIPCAddr("/peer"), nullptr), AW_OK);
  EXPECT_EQ(made->Close(0), AW_OK);
}

}  // namespace
}  // namespace zarn::test
