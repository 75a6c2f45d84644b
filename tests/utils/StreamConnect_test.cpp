// StreamConnect_test.cpp - connecting, attaching and closing a stream of any kind, over scripted
// transports.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "NetworkThread.h"
#include "RecordingStream.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using Strings = std::vector<std::string>;

template <class World>
class StreamConnect : public ::testing::Test, public StreamFixture<World> {};

TYPED_TEST_SUITE(StreamConnect, StreamWorlds, WorldNames);

// --- construction ---

TYPED_TEST(StreamConnect, NewStreamIsIdle) {
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_EQ(this->stream->GetPeerAddr(), typename TypeParam::Platform::Address());
  EXPECT_EQ(this->stream->GetLocalAddr(), typename TypeParam::Platform::Address());
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
  EXPECT_TRUE(this->log.empty());
}

TYPED_TEST(StreamConnect, BufferSizesAreNotEnforced) {
  this->stream->SetSendBufferSize(1);
  this->stream->SetRcvBufferSize(1);
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  EXPECT_EQ(this->Send("much more than one byte"), AW_OK);
  transport->Receive("much more than one byte");
  EXPECT_FALSE(this->stream->IsClosed());
}

// --- Connect ---

TYPED_TEST(StreamConnect, ConnectAsksForAConnectorAndStartsIt) {
  auto local = TypeParam::Endpoint(2);
  EXPECT_EQ(this->stream->Connect(TypeParam::Endpoint(1), &local), AW_OK);
  EXPECT_EQ(this->manager.requests, 1);
  EXPECT_TRUE(this->manager.outWasNull);
  EXPECT_EQ(this->manager.Last().connects, 1);
  EXPECT_EQ(this->manager.Last().peer, TypeParam::Endpoint(1));
  EXPECT_EQ(this->manager.Last().local, TypeParam::Endpoint(2));
  TypeParam::ExpectConnectParameter(this->manager.Last());
  EXPECT_TRUE(this->manager.Last().IsPending());
  EXPECT_FALSE(this->stream->IsClosed());
}

TYPED_TEST(StreamConnect, ConnectPassesANullLocalAddressOn) {
  this->Connect();
  EXPECT_FALSE(this->manager.Last().hadLocal);
}

TYPED_TEST(StreamConnect, ConnectReturnsTheConnectorsErrorWhenItCannotBeStarted) {
  this->manager.connectResult = EMFILE;
  EXPECT_EQ(this->Connect(), static_cast<keelbase::AWResult>(EMFILE));
  EXPECT_TRUE(this->stream->upcalls.empty());
}

TYPED_TEST(StreamConnect, ConnectClearsClosed) {
  this->stream->Close(0);
  EXPECT_EQ(this->Connect(), AW_OK);
  EXPECT_FALSE(this->stream->IsClosed());
}

TYPED_TEST(StreamConnect, SecondConnectCancelsThePendingOne) {
  this->Connect();
  this->Connect(2);
  ASSERT_EQ(this->manager.connectors.size(), 2U);
  EXPECT_EQ(this->manager.connectors[0]->cancels, 1);
  EXPECT_EQ(this->manager.connectors[0]->GetReferences(), 1U);
  EXPECT_TRUE(this->manager.connectors[1]->IsPending());
  EXPECT_TRUE(this->stream->upcalls.empty());
}

TYPED_TEST(StreamConnect, ConnectDisconnectsTheHeldTransportWithReasonZero) {
  auto transport = this->Attach();
  this->Connect();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_TRUE(this->stream->upcalls.empty());
}

TYPED_TEST(StreamConnect, MessageSentWhileAConnectIsPendingIsRefused) {
  this->Connect();
  EXPECT_EQ(this->Send("early;"), TypeParam::kNotConnected);
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamConnect, StreamIsOpenOnceItIsConnectedWhateverItsAttachingHasDone) {
  class ClosesItself final : public TypeParam::Stream {
   public:
    using TypeParam::Stream::Stream;
    keelbase::AWResult SetTransportHandle(typename TestFixture::Handle& handle) override {
      const keelbase::AWResult result = TypeParam::Stream::SetTransportHandle(handle);
      this->Close(0);
      return result;
    }
  };
  this->stream = std::make_unique<ClosesItself>(&this->log);
  this->ConnectFully();
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_EQ(this->stream->upcalls, Strings{"OnConnected(0)"});
}

TYPED_TEST(StreamConnect, CloseThenConnectStartsWithEmptyBuffers) {
  auto old = this->Attach();
  old->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  this->Send("lost");
  old->Receive("ha");

  this->stream->Close(0);
  auto fresh = this->ConnectFully();

  this->Send("new");
  EXPECT_EQ(fresh->wire, "new");
  fresh->Receive("lf;");
  EXPECT_EQ(this->stream->frames, Strings{"lf"});
}

// --- the end of a connect ---

TYPED_TEST(StreamConnect, SuccessfulConnectOpensTheTransportAndThenTellsTheOwner) {
  this->Connect();
  this->log.clear();
  auto transport = this->NewTransport();
  this->manager.Last().Complete(0, transport.Get());
  EXPECT_EQ(this->log, (CallLog{"transport.OpenWithSink", "OnConnected(0)"}));
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 2U);  // the test's and the stream's
  EXPECT_EQ(this->Send("hello;"), AW_OK);
  EXPECT_EQ(transport->wire, "hello;");
}

TYPED_TEST(StreamConnect, ConnectedStreamKnowsBothAddresses) {
  this->Connect();
  auto transport = this->NewTransport();
  transport->peer = TypeParam::Endpoint(1);
  transport->local = TypeParam::Endpoint(2);
  this->manager.Last().Complete(0, transport.Get());
  EXPECT_EQ(this->stream->GetPeerAddr(), TypeParam::Endpoint(1));
  EXPECT_EQ(this->stream->GetLocalAddr(), TypeParam::Endpoint(2));
}

TYPED_TEST(StreamConnect, ConnectionThatCannotBeOpenedIsReportedAsAFailedConnect) {
  this->Connect();
  auto transport = this->NewTransport();
  transport->openResult = AW_ERROR_FAILURE;
  this->manager.Last().Complete(0, transport.Get());
  EXPECT_EQ(this->stream->upcalls, Strings{TypeParam::FailedConnect(AW_ERROR_FAILURE)});
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TYPED_TEST(StreamConnect, SuccessWithoutATransportIsReportedAsAFailedConnect) {
  this->Connect();
  this->manager.Last().Complete(0, nullptr);
  EXPECT_EQ(this->stream->upcalls, Strings{TypeParam::FailedConnect(AW_ERROR_FAILURE)});
  EXPECT_TRUE(this->stream->IsClosed());
}

TYPED_TEST(StreamConnect, OwnerMaySendFromInsideOnConnected) {
  this->stream->onConnected = [&] { EXPECT_EQ(this->Send("hello;"), AW_OK); };
  EXPECT_EQ(this->ConnectFully()->wire, "hello;");
}

TYPED_TEST(StreamConnect, OwnerMayCloseInsideOnConnected) {
  this->stream->onConnected = [&] { this->stream->Close(7); };
  auto transport = this->ConnectFully();
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(transport->disconnects, std::vector<long>{7});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(this->manager.Last().GetReferences(), TypeParam::kCloseCancels ? 1U : 2U);
}

// A stream whose owner has no memory for what it does first.
TYPED_TEST(StreamConnect, ConnectionOfAnOwnerWithoutMemoryInOnConnectedEnds) {
  this->stream->onConnected = [&] {
    this->Send("hal");
    throw std::bad_alloc();
  };
  auto transport = this->ConnectFully();
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(this->stream->upcalls,
            (Strings{"OnConnected(0)", "OnPeerDisconnect(" + std::to_string(ENOMEM) + ")"}));
}

TYPED_TEST(StreamConnect, OwnerWithoutMemoryInOnConnectedIsNotToldOfAnEndOfItsOwnDoing) {
  this->stream->onConnected = [&] {
    this->stream->Close(7);
    throw std::bad_alloc();
  };
  auto transport = this->ConnectFully();
  EXPECT_EQ(transport->disconnects, std::vector<long>{7});
  EXPECT_EQ(this->stream->upcalls, Strings{"OnConnected(0)"});
}

TYPED_TEST(StreamConnect, OwnerWithoutMemoryInOnConnectedKeepsAConnectionThatItPutInPlace) {
  typename TestFixture::Transport other;
  this->stream->onConnected = [&] {
    other = this->Attach();
    throw std::bad_alloc();
  };
  this->ConnectFully();
  EXPECT_TRUE(other->disconnects.empty());
  EXPECT_EQ(this->stream->upcalls, Strings{"OnConnected(0)"});
}

TYPED_TEST(StreamConnect, OwnerWithoutMemoryInOnConnectedMayHaveDeletedTheStream) {
  this->stream->onConnected = [&] {
    this->stream.reset();
    throw std::bad_alloc();
  };
  auto transport = this->ConnectFully();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
}

// --- SetTransportHandle ---

TYPED_TEST(StreamConnect, NullHandleIsRefusedAndChangesNothing) {
  auto transport = this->Attach();
  this->log.clear();
  typename TestFixture::Handle none;
  EXPECT_EQ(this->stream->SetTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(this->log.empty());
  EXPECT_EQ(transport->GetReferences(), 2U);
  EXPECT_EQ(this->Send("still here;"), AW_OK);
  EXPECT_EQ(transport->wire, "still here;");
}

TYPED_TEST(StreamConnect, NullHandleLeavesAClosedStreamClosed) {
  this->stream->Close(0);
  typename TestFixture::Handle none;
  EXPECT_EQ(this->stream->SetTransportHandle(none), AW_ERROR_FAILURE);
  EXPECT_TRUE(this->stream->IsClosed());
}

TYPED_TEST(StreamConnect, HandleIsOpenedWithTheStreamAsSink) {
  auto transport = this->NewTransport();
  transport->peer = TypeParam::Endpoint(1);
  transport->local = TypeParam::Endpoint(2);
  typename TestFixture::Handle handle(transport.Get());
  EXPECT_EQ(this->stream->SetTransportHandle(handle), AW_OK);
  EXPECT_EQ(transport->GetSink(),
            static_cast<typename TypeParam::Platform::TransportSink*>(this->stream.get()));
  EXPECT_EQ(this->stream->GetPeerAddr(), TypeParam::Endpoint(1));
  EXPECT_EQ(this->stream->GetLocalAddr(), TypeParam::Endpoint(2));
  EXPECT_TRUE(handle);                         // the caller's own reference stays
  EXPECT_EQ(transport->GetReferences(), 3U);   // test, handle, stream
  EXPECT_TRUE(this->stream->upcalls.empty());  // attaching is not connecting
}

TYPED_TEST(StreamConnect, NewHandleReplacesTheHeldTransport) {
  auto old = this->Attach();
  auto fresh = this->Attach();
  EXPECT_EQ(old->disconnects, std::vector<long>{0});
  EXPECT_EQ(old->GetReferences(), 1U);
  EXPECT_EQ(fresh->GetReferences(), 2U);
  this->Send("x;");
  EXPECT_EQ(fresh->wire, "x;");
  EXPECT_TRUE(this->stream->upcalls.empty());
}

TYPED_TEST(StreamConnect, HandleClearsClosed) {
  this->stream->Close(0);
  this->Attach();
  EXPECT_FALSE(this->stream->IsClosed());
}

TYPED_TEST(StreamConnect, HandleThatDoesNotOpenAnswers10001AndStaysHeld) {
  auto transport = this->NewTransport();
  transport->openResult = AW_ERROR_FAILURE;
  transport->peer = TypeParam::Endpoint(1);
  typename TestFixture::Handle handle(transport.Get());
  EXPECT_EQ(this->stream->SetTransportHandle(handle), AW_ERROR_FAILURE);
  EXPECT_EQ(transport->GetReferences(), 3U);
  EXPECT_EQ(this->stream->GetPeerAddr(),
            typename TypeParam::Platform::Address());  // only asked for once it is open
}

// --- OnDisconnect ---

TYPED_TEST(StreamConnect, EndOfTheTransportClosesWithoutDisconnectingAndThenReports) {
  auto transport = this->Attach();
  this->log.clear();
  transport->End(ECONNRESET);
  EXPECT_EQ(this->log, CallLog{"OnPeerDisconnect(" + std::to_string(ECONNRESET) + ")"});
  EXPECT_TRUE(transport->disconnects.empty());
  EXPECT_EQ(transport->lingerCalls, 0);
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(this->Send("late;"), TypeParam::kNotConnected);
}

// --- Close ---

TYPED_TEST(StreamConnect, CloseDisconnectsWithTheGivenReasonAndMakesNoUpcall) {
  auto transport = this->ConnectFully();
  this->log.clear();
  EXPECT_EQ(this->stream->Close(42), AW_OK);
  CallLog calls = {"transport.Disconnect(42)"};
  if (TypeParam::kCloseCancels) calls.push_back("connector.CancelConnect");
  EXPECT_EQ(this->log, calls);
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(this->manager.Last().GetReferences(), TypeParam::kCloseCancels ? 1U : 2U);
}

TYPED_TEST(StreamConnect, CloseCancelsAPendingConnectUnlessTheClassKeepsIt) {
  this->Connect();
  this->stream->Close(0);
  EXPECT_EQ(this->manager.Last().cancels, TypeParam::kCloseCancels ? 1 : 0);
  EXPECT_EQ(this->manager.Last().IsPending(), !TypeParam::kCloseCancels);
}

TYPED_TEST(StreamConnect, CloseOfAnIdleStreamMarksItClosed) {
  EXPECT_EQ(this->stream->Close(1), AW_OK);
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(this->stream->Close(2), AW_OK);
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_TRUE(this->log.empty());
}

TYPED_TEST(StreamConnect, CloseHandsWhatIsQueuedToTheTransportBeforeDisconnecting) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 4);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->Send("sentqueued;");
  this->Send("more;");
  this->log.clear();
  this->stream->Close(0);
  EXPECT_EQ(this->log, (CallLog{"transport.LingerData", "transport.Disconnect(0)"}));
  EXPECT_EQ(transport->wire + transport->lingerData, "sentqueued;more;");
  EXPECT_EQ(this->stream->GetSendQueueLength(), 0U);
}

TYPED_TEST(StreamConnect, CloseWithAnEmptyQueueHandsNothingOver) {
  auto transport = this->Attach();
  this->Send("all of it;");
  this->stream->Close(0);
  EXPECT_EQ(transport->lingerCalls, 0);
}

// --- destruction ---

TYPED_TEST(StreamConnect, DestructorDisconnectsWithReasonZeroAndLetsGoOfTheConnector) {
  auto transport = this->ConnectFully();
  this->log.clear();
  this->stream.reset();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  EXPECT_EQ(this->manager.Last().cancels, TypeParam::kDestructorCancels ? 1 : 0);
  EXPECT_EQ(transport->GetReferences(), 1U);
  EXPECT_EQ(this->manager.Last().GetReferences(), 1U);
}

TYPED_TEST(StreamConnect, DestructorLosesNothingThatWasAccepted) {
  auto transport = this->Attach();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->Send("goodbye;");
  this->stream.reset();
  EXPECT_EQ(transport->lingerData, "goodbye;");
}

// Where it does not cancel, letting go of the last reference does.
TYPED_TEST(StreamConnect, DestructorOfAConnectingStreamLetsGoOfTheConnector) {
  this->Connect();
  this->stream.reset();
  EXPECT_EQ(this->manager.Last().cancels, TypeParam::kDestructorCancels ? 1 : 0);
  EXPECT_EQ(this->manager.Last().GetReferences(), 1U);
}

// --- threads ---

#ifndef NDEBUG
template <class World>
class StreamDeathTest : public StreamConnect<World> {};

TYPED_TEST_SUITE(StreamDeathTest, StreamWorlds, WorldNames);

TYPED_TEST(StreamDeathTest, SendFromAnotherThreadStopsADebugBuildAndNamesTheOperation) {
  EXPECT_DEATH(
      {
        this->Attach();
        std::thread([&] { this->Send("x;"); }).join();
      },
      std::string(TypeParam::kName) + "::Send(Msg|Message) ");
}

TYPED_TEST(StreamDeathTest, CloseFromAnotherThreadStopsADebugBuild) {
  EXPECT_DEATH(
      {
        this->Connect();
        std::thread([&] { this->stream->Close(0); }).join();
      },
      std::string(TypeParam::kName) + "::Close");
}

TYPED_TEST(StreamDeathTest, ConnectFromAnotherThreadStopsADebugBuild) {
  EXPECT_DEATH(
      {
        this->Attach();
        std::thread([&] { this->Connect(); }).join();
      },
      std::string(TypeParam::kName) + "::Connect");
}
#endif

// Debug builds check that it is left to them. To cancel may be to wait for the stream's thread.
TYPED_TEST(StreamConnect, StreamWhoseConnectHasFailedMayBeDestroyedOnAnotherThread) {
  this->Connect();
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  std::thread([&] { this->stream.reset(); }).join();
  EXPECT_EQ(this->manager.Last().cancels, TypeParam::kCloseCancels ? 0 : 1);
  EXPECT_EQ(this->manager.Last().GetReferences(), 1U);
}

TYPED_TEST(StreamConnect, StreamWhoseConnectionHasEndedMayBeDestroyedOnAnotherThread) {
  this->ConnectFully()->End(0);
  std::thread([&] { this->stream.reset(); }).join();
  EXPECT_EQ(this->manager.Last().GetReferences(), 1U);
}

TYPED_TEST(StreamConnect, StreamBelongsToTheThreadOfItsFirstConnectNotOfItsConstruction) {
  std::unique_ptr<typename TypeParam::Stream> made;
  std::thread([&] { made = std::make_unique<typename TypeParam::Stream>(); }).join();
  EXPECT_EQ(made->Connect(TypeParam::Endpoint(1), nullptr), AW_OK);
  EXPECT_EQ(made->Close(0), AW_OK);
}

}  // namespace
}  // namespace zarn::test
