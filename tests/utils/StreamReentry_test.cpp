// StreamReentry_test.cpp - a stream of any kind that is closed, reconnected or deleted by its own
// upcalls, over scripted transports. What these check shows best under the address sanitizer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NetworkThread.h"
#include "RecordingStream.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using Strings = std::vector<std::string>;

template <class World>
class StreamReentry : public ::testing::Test, public StreamFixture<World> {
 protected:
  StreamReentry() { this->stream->SetTransportHandle(handle); }

  typename StreamFixture<World>::Transport transport = this->NewTransport();
  typename StreamFixture<World>::Handle handle{transport.Get()};
};

TYPED_TEST_SUITE(StreamReentry, StreamWorlds, WorldNames);

// --- Close inside HandleMessage ---

TYPED_TEST(StreamReentry, CloseInsideHandleMessageEndsDeliveryAndReportsOnce) {
  this->DuringFirstMessage([&] { this->stream->Close(5); });
  this->transport->Receive("one;two;three;");
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_TRUE(this->stream->IsClosed());
  EXPECT_EQ(this->stream->upcalls, Strings{TypeParam::kClosedByHandler});
  EXPECT_EQ(this->transport->disconnects, std::vector<long>{5});
}

TYPED_TEST(StreamReentry, BytesStayValidUntilTheHandlerReturnsAfterItClosed) {
  std::string seen;
  this->stream->onMessage = [&](const char* data, std::size_t len) {
    this->stream->Close(0);
    seen.assign(data, len);
    return len;
  };
  this->transport->Receive(std::string(5000, 'x'));
  EXPECT_EQ(seen, std::string(5000, 'x'));
}

TYPED_TEST(StreamReentry, BytesOfAFrameInPiecesStayValidAfterAClose) {
  std::string seen;
  this->stream->onMessage = [&](const char* data, std::size_t len) -> std::size_t {
    if (len < 30000) return 0;
    this->stream->Close(0);
    seen.assign(data, len);
    return len;
  };
  for (int i = 0; i < 30; ++i)
    this->transport->Receive(std::string(1000, static_cast<char>('a' + i % 26)));
  ASSERT_EQ(seen.size(), 30000U);
  EXPECT_EQ(seen.substr(0, 1000), std::string(1000, 'a'));
  EXPECT_EQ(seen.substr(29000), std::string(1000, 'd'));
}

TYPED_TEST(StreamReentry, BytesStayValidWhenTheHandlerReconnectsAndReceivesAnew) {
  auto fresh = this->NewTransport();
  typename TestFixture::Handle freshHandle(fresh.Get());
  std::string seen;
  this->stream->onMessage = [&](const char* data, std::size_t len) {
    this->stream->onMessage = nullptr;
    this->stream->Close(0);
    this->stream->SetTransportHandle(freshHandle);
    fresh->Receive(std::string(70000, 'n'));
    seen.assign(data, len);
    return len;
  };
  this->transport->Receive(std::string(5000, 'x'));
  EXPECT_EQ(seen, std::string(5000, 'x'));
}

TYPED_TEST(StreamReentry, SendInsideHandleMessageGoesOut) {
  this->DuringFirstMessage([&] { EXPECT_EQ(this->Send("answer;"), AW_OK); });
  this->transport->Receive("question;");
  EXPECT_EQ(this->transport->wire, "answer;");
}

// --- a new connection inside HandleMessage ---

TYPED_TEST(StreamReentry, ReconnectInsideHandleMessageIsNotTouchedByTheOldLoop) {
  this->DuringFirstMessage([&] {
    this->stream->Close(0);
    this->Connect(2);
  });
  this->transport->Receive("one;two;");
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->stream->upcalls.empty());
  EXPECT_TRUE(this->manager.Last().IsPending());

  auto fresh = this->NewTransport();
  this->manager.Last().Complete(0, fresh.Get());
  fresh->Receive("three;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "three"}));
}

TYPED_TEST(StreamReentry, ReconnectWithoutCloseInsideHandleMessageIsNotTouchedEither) {
  this->DuringFirstMessage([&] { this->Connect(2); });
  this->transport->Receive("one;two;");
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->stream->upcalls.empty());
  EXPECT_TRUE(this->manager.Last().IsPending());
}

TYPED_TEST(StreamReentry, NewTransportInsideHandleMessageStaysOpen) {
  auto fresh = this->NewTransport();
  typename TestFixture::Handle freshHandle(fresh.Get());
  this->DuringFirstMessage([&] {
    this->stream->Close(0);
    this->stream->SetTransportHandle(freshHandle);
  });
  this->transport->Receive("one;two;");
  EXPECT_TRUE(fresh->disconnects.empty());
  EXPECT_TRUE(this->stream->upcalls.empty());
  fresh->Receive("three;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "three"}));
}

TYPED_TEST(StreamReentry, NewTransportWithoutCloseInsideHandleMessageEndsTheOldDelivery) {
  auto fresh = this->NewTransport();
  typename TestFixture::Handle freshHandle(fresh.Get());
  this->DuringFirstMessage([&] { this->stream->SetTransportHandle(freshHandle); });
  this->transport->Receive("one;two;");
  EXPECT_EQ(this->stream->frames, Strings{"one"});
  EXPECT_EQ(this->transport->disconnects, std::vector<long>{0});
  EXPECT_TRUE(this->stream->upcalls.empty());
  fresh->Receive("three;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "three"}));
}

TYPED_TEST(StreamReentry, OverlongCountFromTheOldConnectionDoesNotTearTheNewOneDown) {
  this->stream->onMessage = [&](const char*, std::size_t len) {
    this->stream->onMessage = nullptr;
    this->stream->Close(0);
    this->Connect(2);
    return len + 1;
  };
  this->transport->Receive("bytes");
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->manager.Last().IsPending());
  EXPECT_TRUE(this->stream->upcalls.empty());
}

TYPED_TEST(StreamReentry, NewBytesFollowWhatWasLeftWhenTheHandlerReceivesFromInside) {
  // A handler that lets the transport deliver again from inside: allowed for callers that
  // pump a loop.
  auto fresh = this->NewTransport();
  typename TestFixture::Handle freshHandle(fresh.Get());
  this->DuringFirstMessage([&] {
    this->stream->Close(0);
    this->stream->SetTransportHandle(freshHandle);
    fresh->Receive("new;ha");
  });
  this->transport->Receive("one;two;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "new"}));
  fresh->Receive("lf;");
  EXPECT_EQ(this->stream->frames, (Strings{"one", "new", "half"}));
}

// --- reconnecting inside the last upcall ---

TYPED_TEST(StreamReentry, ReconnectInsideTheLastUpcallAfterTheEndStays) {
  this->stream->onEnd = [&] { this->Connect(2); };
  this->transport->End(0);
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->manager.Last().IsPending());
}

TYPED_TEST(StreamReentry, ReconnectInsideTheLastUpcallAfterAFailedConnectStays) {
  this->Connect();
  this->stream->onEnd = [&] {
    this->stream->onEnd = nullptr;
    this->Connect(2);
  };
  this->manager.Last().Complete(1, nullptr);
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->manager.Last().IsPending());
  EXPECT_EQ(this->manager.Last().peer, TypeParam::Endpoint(2));
}

TYPED_TEST(StreamReentry, ReconnectInsideTheLastUpcallAfterACloseInsideHandleMessageStays) {
  this->DuringFirstMessage([&] { this->stream->Close(0); });
  this->stream->onEnd = [&] { this->Connect(2); };
  this->transport->Receive("one;two;");
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->manager.Last().IsPending());
  EXPECT_EQ(this->stream->frames, Strings{"one"});
}

TYPED_TEST(StreamReentry, NewTransportInsideTheLastUpcallStays) {
  auto fresh = this->NewTransport();
  typename TestFixture::Handle freshHandle(fresh.Get());
  this->stream->onEnd = [&] { this->stream->SetTransportHandle(freshHandle); };
  this->transport->End(0);
  EXPECT_FALSE(this->stream->IsClosed());
  fresh->Receive("one;");
  EXPECT_EQ(this->stream->frames, Strings{"one"});
}

// --- inside OnConnected ---

TYPED_TEST(StreamReentry, ReconnectInsideOnConnectedReplacesTheConnectionQuietly) {
  this->stream->onConnected = [&] {
    this->stream->onConnected = nullptr;
    this->Connect(2);
  };
  auto connected = this->ConnectFully();
  EXPECT_EQ(connected->disconnects, std::vector<long>{0});
  EXPECT_EQ(connected->GetReferences(), 1U);
  EXPECT_FALSE(this->stream->IsClosed());
  EXPECT_TRUE(this->manager.Last().IsPending());
  EXPECT_EQ(this->stream->upcalls, Strings{"OnConnected(0)"});
}

// --- deleting inside an upcall ---

TYPED_TEST(StreamReentry, DeletingItselfInsideHandleMessageEndsDelivery) {
  std::string seen;
  int calls = 0;
  this->stream->onMessage = [&](const char* data, std::size_t len) {
    ++calls;
    this->stream.reset();
    seen.assign(data, len);  // still valid
    return std::size_t{4};
  };
  this->transport->Receive("one;two;");
  EXPECT_TRUE(this->destroyed);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen, "one;two;");
  EXPECT_EQ(this->transport->disconnects, std::vector<long>{0});
}

TYPED_TEST(StreamReentry, DeletingItselfWhileAnotherFrameIsHalfReceivedIsAllowed) {
  this->transport->Receive("on");
  this->stream->onMessage = [&](const char* data, std::size_t len) {
    this->stream.reset();
    EXPECT_EQ(std::string(data, len), "one;tw");
    return std::size_t{4};
  };
  this->transport->Receive("e;tw");
  EXPECT_TRUE(this->destroyed);
}

TYPED_TEST(StreamReentry, DeletingItselfInsideOnConnectedIsAllowed) {
  this->stream->onConnected = [&] { this->stream.reset(); };
  auto connected = this->ConnectFully();
  EXPECT_TRUE(this->destroyed);
  EXPECT_EQ(connected->disconnects, std::vector<long>{0});
  EXPECT_EQ(connected->GetReferences(), 1U);
}

TYPED_TEST(StreamReentry, DeletingItselfInsideTheLastUpcallAfterTheEndIsAllowed) {
  this->DeleteAtTheEnd();
  this->transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  this->Send("queued;");
  this->transport->Receive("half");
  this->transport->End(0);
  EXPECT_TRUE(this->destroyed);
  this->handle = nullptr;
  EXPECT_EQ(this->transport->GetReferences(), 1U);
}

TYPED_TEST(StreamReentry, DeletingItselfAfterACloseInsideHandleMessageIsAllowed) {
  this->DeleteAtTheEnd();
  this->DuringFirstMessage([&] { this->stream->Close(0); });
  this->transport->Receive("one;two;");
  EXPECT_TRUE(this->destroyed);
}

TYPED_TEST(StreamReentry, DeletingItselfAfterAFailedConnectIsAllowed) {
  this->DeleteAtTheEnd();
  this->Connect();
  this->manager.Last().Complete(1, nullptr);
  EXPECT_TRUE(this->destroyed);
  EXPECT_EQ(this->manager.Last().GetReferences(), 1U);
}

}  // namespace
}  // namespace zarn::test
