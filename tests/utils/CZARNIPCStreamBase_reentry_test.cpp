// CZARNIPCStreamBase_reentry_test.cpp - a stream that is closed, reconnected or deleted by its own
// upcalls, over a scripted transport. What these check shows best under the address sanitizer.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "FakeIpc.h"
#include "NetworkThread.h"
#include "RecordingStream.h"
#include "TraceLines.h"
#include "zarn/utils/CZARNIPCStreamBase.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWIPCAddr;
using keelbase::CAWMessageBlock;
using Strings = std::vector<std::string>;

class CZARNIPCStreamBaseReentry : public ::testing::Test, public StreamFixture {
 protected:
  CZARNIPCStreamBaseReentry() {
    stream->destroyed = &destroyed;
    stream->SetTransportHandle(handle);
  }

  // Runs `action` while the first message is handled; the messages after it are taken as usual.
  void DuringFirstMessage(std::function<void()> action) {
    stream->onMessage = [this, action = std::move(action)](const char* data, std::size_t len) {
      const std::size_t taken = stream->TakeFrame(data, len);
      if (stream->frames.size() == 1) action();
      return taken;
    };
  }
  void DeleteInPeerDisconnect() {
    stream->onPeerDisconnect = [this](long) { stream.reset(); };
  }

  bool destroyed = false;
  Transport transport = NewTransport();
  Handle handle{transport.Get()};
};

// --- Close inside HandleMessage ---

TEST_F(CZARNIPCStreamBaseReentry, CloseInsideHandleMessageEndsDeliveryAndReportsOnce) {
  DuringFirstMessage([&] { stream->Close(5); });
  transport->Receive("one;two;three;");
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_TRUE(stream->IsClosed());
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{0});
  EXPECT_EQ(transport->disconnects, std::vector<long>{5});
}

TEST_F(CZARNIPCStreamBaseReentry, BytesStayValidUntilTheHandlerReturnsAfterItClosed) {
  std::string seen;
  stream->onMessage = [&](const char* data, std::size_t len) {
    stream->Close(0);
    seen.assign(data, len);
    return len;
  };
  transport->Receive(std::string(5000, 'x'));
  EXPECT_EQ(seen, std::string(5000, 'x'));
}

TEST_F(CZARNIPCStreamBaseReentry, BytesOfAFrameInPiecesStayValidAfterAClose) {
  std::string seen;
  stream->onMessage = [&](const char* data, std::size_t len) -> std::size_t {
    if (len < 30000) return 0;
    stream->Close(0);
    seen.assign(data, len);
    return len;
  };
  for (int i = 0; i < 30; ++i)
    transport->Receive(std::string(1000, static_cast<char>('a' + i % 26)));
  ASSERT_EQ(seen.size(), 30000U);
  EXPECT_EQ(seen.substr(0, 1000), std::string(1000, 'a'));
  EXPECT_EQ(seen.substr(29000), std::string(1000, 'd'));
}

TEST_F(CZARNIPCStreamBaseReentry, BytesStayValidWhenTheHandlerReconnectsAndReceivesAnew) {
  auto fresh = NewTransport();
  Handle freshHandle(fresh.Get());
  std::string seen;
  stream->onMessage = [&](const char* data, std::size_t len) {
    stream->onMessage = nullptr;
    stream->Close(0);
    stream->SetTransportHandle(freshHandle);
    fresh->Receive(std::string(70000, 'n'));
    seen.assign(data, len);
    return len;
  };
  transport->Receive(std::string(5000, 'x'));
  EXPECT_EQ(seen, std::string(5000, 'x'));
}

TEST_F(CZARNIPCStreamBaseReentry, CloseInsideADirectBlockAnswers10001) {
  DuringFirstMessage([&] { stream->Close(0); });
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_EQ(stream->peerDisconnects, std::vector<long>{0});
}

TEST_F(CZARNIPCStreamBaseReentry, SendInsideHandleMessageGoesOut) {
  DuringFirstMessage([&] { EXPECT_EQ(Send("answer;"), AW_OK); });
  transport->Receive("question;");
  EXPECT_EQ(transport->wire, "answer;");
}

// --- a new connection inside HandleMessage ---

TEST_F(CZARNIPCStreamBaseReentry, ReconnectInsideHandleMessageIsNotTouchedByTheOldLoop) {
  DuringFirstMessage([&] {
    stream->Close(0);
    stream->Connect(CAWIPCAddr("/again"), nullptr);
  });
  transport->Receive("one;two;");
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(stream->peerDisconnects.empty());
  EXPECT_TRUE(manager.Last().IsPending());

  auto fresh = NewTransport();
  manager.Last().Complete(0, fresh.Get());
  fresh->Receive("three;");
  EXPECT_EQ(stream->frames, (Strings{"one", "three"}));
}

TEST_F(CZARNIPCStreamBaseReentry, ReconnectWithoutCloseInsideHandleMessageIsNotTouchedEither) {
  DuringFirstMessage([&] { stream->Connect(CAWIPCAddr("/again"), nullptr); });
  transport->Receive("one;two;");
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(stream->peerDisconnects.empty());
  EXPECT_TRUE(manager.Last().IsPending());
}

TEST_F(CZARNIPCStreamBaseReentry, NewTransportInsideHandleMessageStaysOpen) {
  auto fresh = NewTransport();
  Handle freshHandle(fresh.Get());
  DuringFirstMessage([&] {
    stream->Close(0);
    stream->SetTransportHandle(freshHandle);
  });
  transport->Receive("one;two;");
  EXPECT_TRUE(fresh->disconnects.empty());
  EXPECT_TRUE(stream->peerDisconnects.empty());
  fresh->Receive("three;");
  EXPECT_EQ(stream->frames, (Strings{"one", "three"}));
}

TEST_F(CZARNIPCStreamBaseReentry, OverlongCountFromTheOldConnectionDoesNotTearTheNewOneDown) {
  stream->onMessage = [&](const char*, std::size_t len) {
    stream->onMessage = nullptr;
    stream->Close(0);
    stream->Connect(CAWIPCAddr("/again"), nullptr);
    return len + 1;
  };
  transport->Receive("bytes");
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(manager.Last().IsPending());
  EXPECT_TRUE(stream->peerDisconnects.empty());
}

TEST_F(CZARNIPCStreamBaseReentry, ReconnectInsideADirectBlockIsNotTouched) {
  DuringFirstMessage([&] {
    stream->Close(0);
    stream->Connect(CAWIPCAddr("/again"), nullptr);
  });
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  stream->OnReceiveDirect(block);
  EXPECT_EQ(stream->frames, Strings{"one"});
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(manager.Last().IsPending());
  EXPECT_TRUE(stream->peerDisconnects.empty());
}

TEST_F(CZARNIPCStreamBaseReentry, NewBytesFollowWhatWasLeftWhenTheHandlerReceivesFromInside) {
  // A handler that lets the transport deliver again from inside: allowed for callers that pump a
  // loop.
  auto fresh = NewTransport();
  Handle freshHandle(fresh.Get());
  DuringFirstMessage([&] {
    stream->Close(0);
    stream->SetTransportHandle(freshHandle);
    fresh->Receive("new;ha");
  });
  transport->Receive("one;two;");
  EXPECT_EQ(stream->frames, (Strings{"one", "new"}));
  fresh->Receive("lf;");
  EXPECT_EQ(stream->frames, (Strings{"one", "new", "half"}));
}

// --- reconnecting inside OnPeerDisconnect ---

TEST_F(CZARNIPCStreamBaseReentry, ReconnectInsideOnPeerDisconnectAfterTheEndStays) {
  stream->onPeerDisconnect = [&](long) { stream->Connect(CAWIPCAddr("/again"), nullptr); };
  transport->End(0);
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(manager.Last().IsPending());
}

TEST_F(CZARNIPCStreamBaseReentry, ReconnectInsideOnPeerDisconnectAfterAFailedConnectStays) {
  stream->Connect(CAWIPCAddr("/first"), nullptr);
  stream->onPeerDisconnect = [&](long) {
    stream->onPeerDisconnect = nullptr;
    stream->Connect(CAWIPCAddr("/again"), nullptr);
  };
  manager.Last().Complete(1, nullptr);
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(manager.Last().IsPending());
  EXPECT_EQ(manager.Last().peerPath, "/again");
}

TEST_F(CZARNIPCStreamBaseReentry, ReconnectInsideOnPeerDisconnectAfterATeardownStays) {
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  stream->onPeerDisconnect = [&](long) { stream->Connect(CAWIPCAddr("/again"), nullptr); };
  transport->Receive("bytes");
  EXPECT_FALSE(stream->IsClosed());
  EXPECT_TRUE(manager.Last().IsPending());
}

// --- deleting inside an upcall ---

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfInsideHandleMessageEndsDelivery) {
  std::string seen;
  int calls = 0;
  stream->onMessage = [&](const char* data, std::size_t len) {
    ++calls;
    stream.reset();
    seen.assign(data, len);  // still valid
    return std::size_t{4};
  };
  transport->Receive("one;two;");
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen, "one;two;");
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfWhileAnotherFrameIsHalfReceivedIsAllowed) {
  transport->Receive("on");
  stream->onMessage = [&](const char* data, std::size_t len) {
    stream.reset();
    EXPECT_EQ(std::string(data, len), "one;tw");
    return std::size_t{4};
  };
  transport->Receive("e;tw");
  EXPECT_TRUE(destroyed);
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfInsideADirectBlockAnswers10001) {
  stream->onMessage = [&](const char*, std::size_t) {
    stream.reset();
    return std::size_t{4};
  };
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_TRUE(destroyed);
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfInsideOnConnectedIsAllowed) {
  stream->onConnected = [&](long) { stream.reset(); };
  auto connected = ConnectFully();
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(connected->disconnects, std::vector<long>{0});
  EXPECT_EQ(connected->GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfInsideOnPeerDisconnectAfterTheEndIsAllowed) {
  DeleteInPeerDisconnect();
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 0);
  Send("queued;");
  transport->Receive("half");
  transport->End(0);
  EXPECT_TRUE(destroyed);
  handle = nullptr;
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfAfterAnOverlongCountIsAllowed) {
  DeleteInPeerDisconnect();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  transport->Receive("one;two;");
  EXPECT_TRUE(destroyed);
  handle = nullptr;
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfAfterACloseInsideHandleMessageIsAllowed) {
  DeleteInPeerDisconnect();
  DuringFirstMessage([&] { stream->Close(0); });
  transport->Receive("one;two;");
  EXPECT_TRUE(destroyed);
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfAfterADirectBlockIsAllowed) {
  TraceLines trace;
  DeleteInPeerDisconnect();
  stream->onMessage = [](const char*, std::size_t len) { return len + 1; };
  CAWMessageBlock block(16);
  block.Write("one;two;", 8);
  EXPECT_EQ(stream->OnReceiveDirect(block), AW_ERROR_FAILURE);
  EXPECT_TRUE(destroyed);
}

TEST_F(CZARNIPCStreamBaseReentry, DeletingItselfAfterAFailedConnectIsAllowed) {
  DeleteInPeerDisconnect();
  stream->Connect(CAWIPCAddr("/peer"), nullptr);
  manager.Last().Complete(1, nullptr);
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(manager.Last().GetReferences(), 1U);
}

}  // namespace
}  // namespace zarn::test
