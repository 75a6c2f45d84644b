// StreamAllocations_test.cpp - each allocation of the streams for frames of one's own fails in
// turn: when they are attached, send, receive and close. The transports are fakes.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Exhaustion.h"
#include "FakePtcp.h"
#include "FakeTcp.h"
#include "FakeTls.h"
#include "NetworkThread.h"
#include "SwallowingTransport.h"
#include "zarn/utils/CPTCPStreamBase.h"
#include "zarn/utils/CSSLPTCPSessionBase.h"
#include "zarn/utils/CZARNMetrics.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"
#include "zarn/utils/CZARNTCPSSLTransport.h"
#include "zarn/utils/CZARNTCPSessionBase.h"
#include "zarn/utils/CZARNTCPTransport.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;

constexpr std::size_t kFrameLength = 1000;

// --- the streams: they count, and allocate nothing themselves ---

template <class Base>
struct CountingStream : Base {
  std::size_t frames = 0;
  int ends = 0;
  long reason = -1;

  void OnPeerDisconnect(long why) override {
    ++ends;
    reason = why;
  }
  std::size_t TakeFrame(std::size_t length) {
    if (length < kFrameLength) return 0;
    ++frames;
    return kFrameLength;
  }
};

template <class Base>
struct CountingSession final : CountingStream<Base> {
  std::size_t HandleMessage(const char*, std::size_t length) override {
    return this->TakeFrame(length);
  }
  int OnConnected(long) override { return 0; }
  void OnRcvBufferOverFlow(std::uint32_t) override {}
};

template <class Base>
struct CountingBlocks final : CountingStream<Base> {
  std::uint16_t HandleMessage(CAWMessageBlock& data) override {
    return static_cast<std::uint16_t>(this->TakeFrame(data.GetChainedLength()));
  }
};

template <class Platform>
using HandleOf = CAWAutoPtr<typename Platform::Transport>;

// What most of them name alike.
struct AnyStream {
  template <class Stream, class Handle>
  static AWResult Attach(Stream& stream, Handle& handle) {
    return stream.SetTransportHandle(handle);
  }
  template <class Stream, class Transport>
  static void Receive(Stream& stream, CAWMessageBlock& data, Transport* transport) {
    if constexpr (requires { stream.OnSSLDataReceive(data, transport); })
      stream.OnSSLDataReceive(data, transport);
    else
      stream.OnReceive(data, transport, nullptr);
  }
  template <class Stream, class Transport>
  static void MakeRoom(Stream& stream, Transport* transport) {
    if constexpr (requires { stream.OnSSLDataSend(transport); })
      stream.OnSSLDataSend(transport);
    else
      stream.OnSend(transport, nullptr);
  }
  template <class Stream>
  static AWResult Close(Stream& stream) {
    if constexpr (requires { stream.Close(0); })
      return stream.Close(0);
    else
      return stream.Disconnect(0);
  }
};

struct TcpSessions : AnyStream {
  static constexpr const char* kName = "CZARNTCPSessionBase";
  using Platform = Tcp;
  using Stream = CountingSession<utils::CZARNTCPSessionBase>;
  static AWResult Send(Stream& stream, CAWMessageBlock& data) { return stream.SendMsg(data); }
};

struct TlsSessions : AnyStream {
  static constexpr const char* kName = "CZARNSSLTCPSessionBase";
  using Platform = Tls;
  using Stream = CountingSession<utils::CZARNSSLTCPSessionBase>;
  static AWResult Send(Stream& stream, CAWMessageBlock& data) { return stream.SendMsg(data); }
};

struct PtlsSessions : AnyStream {
  static constexpr const char* kName = "CSSLPTCPSessionBase";
  using Platform = Tls;
  using Stream = CountingSession<utils::CSSLPTCPSessionBase>;
  static AWResult Send(Stream& stream, CAWMessageBlock& data) { return stream.SendMessage(data); }
};

struct TcpTransports : AnyStream {
  static constexpr const char* kName = "CZARNTCPTransport";
  using Platform = Tcp;
  using Stream = CountingBlocks<utils::CZARNTCPTransport>;
  static AWResult Send(Stream& stream, CAWMessageBlock& data) {
    return stream.SendMsg(data, nullptr);
  }
};

struct TlsTransports : AnyStream {
  static constexpr const char* kName = "CZARNTCPSSLTransport";
  using Platform = Tls;
  using Stream = CountingBlocks<utils::CZARNTCPSSLTransport>;
  static AWResult Attach(Stream& stream, HandleOf<Tls>& handle) {
    return stream.SetSSLTransportHandle(handle);
  }
  static AWResult Send(Stream& stream, CAWMessageBlock& data) {
    return stream.SendSSLMessage(data);
  }
};

struct PtcpStreams : AnyStream {
  static constexpr const char* kName = "CPTCPStreamBase";
  using Platform = Ptcp;
  using Stream = CountingBlocks<utils::CPTCPStreamBase>;
  static AWResult Send(Stream& stream, CAWMessageBlock& data) {
    return stream.SendMessage(data, nullptr);
  }
};

struct KindNames {
  template <class Kind>
  static std::string GetName(int) {
    return Kind::kName;
  }
};

// --- a stream with a connection ---

template <class Kind>
struct Attached {
  using Platform = typename Kind::Platform;
  using Stream = typename Kind::Stream;

  Attached() { EXPECT_EQ(Attach(), AW_OK); }

  AWResult Attach() {
    transport = fresh;
    HandleOf<Platform> handle(transport.Get());
    return Kind::Attach(*stream, handle);
  }
  AWResult Send(const std::string& bytes) {
    CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
    return Kind::Send(*stream, block);
  }
  void MakeRoom() {
    transport->room = static_cast<std::size_t>(-1);
    Kind::MakeRoom(*stream, transport.Get());
  }
  void Receive(CAWMessageBlock& block) { Kind::Receive(*stream, block, transport.Get()); }
  std::size_t GetAccepted() const { return transport->taken + stream->GetSendQueueLength(); }

  using Transport = CAWAutoPtr<SwallowingTransport<Platform>>;
  Transport fresh{new SwallowingTransport<Platform>};  // of the next Attach
  Transport transport;
  std::unique_ptr<Stream> stream = std::make_unique<Stream>();
};

template <class Kind>
class StreamAllocations : public ::testing::Test {
 protected:
  // Sends with so much room in the transport and so much waiting before, until no allocation fails.
  void ExpectSendsWholeOrNothing(std::size_t room, bool waits, std::size_t size) {
    const std::string bytes(size, 'b');
    const EmptyPool outer;  // that the others are quickly made
    for (EachAllocation each; each.Next();) {
      Attached<Kind> one;
      one.transport->room = waits ? 0 : room;
      if (waits) {
        ASSERT_EQ(one.Send("waits"), AW_OK);
      }
      one.transport->room = room;
      const std::size_t before = one.GetAccepted();
      AWResult result = AW_OK;
      const EmptyPool empty;
      each.Try([&] { result = one.Send(bytes); });
      if (result == AW_OK) {
        EXPECT_EQ(one.GetAccepted(), before + size);
      } else {
        EXPECT_TRUE(each.HasFailed());
        EXPECT_EQ(result, AW_ERROR_FAILURE);
        if (one.transport->disconnects == 0) {
          EXPECT_EQ(one.GetAccepted(), before);
        }
      }
      ExpectToServe(one);
    }
  }
  // All that waits goes out, and so does one message more; on another connection if this one is
  // closed.
  void ExpectToServe(Attached<Kind>& one) {
    if (one.transport->disconnects != 0) {
      EXPECT_EQ(one.transport->disconnects, 1);
      one.fresh = new SwallowingTransport<typename Kind::Platform>;
      ASSERT_EQ(one.Attach(), AW_OK);
    }
    one.MakeRoom();
    EXPECT_EQ(one.stream->GetSendQueueLength(), 0U);
    const std::size_t before = one.transport->taken;
    EXPECT_EQ(one.Send("more"), AW_OK);
    EXPECT_EQ(one.transport->taken, before + 4);
  }
};

using Kinds = ::testing::Types<TcpSessions, TlsSessions, PtlsSessions, TcpTransports, TlsTransports,
                               PtcpStreams>;
TYPED_TEST_SUITE(StreamAllocations, Kinds, KindNames);

TYPED_TEST(StreamAllocations, AttachingNeedsNone) {
  Attached<TypeParam> one;
  one.fresh = new SwallowingTransport<typename TypeParam::Platform>;
  AWResult result = AW_ERROR_FAILURE;
  {
    const Exhaustion none;
    result = one.Attach();
  }
  EXPECT_EQ(result, AW_OK);
  EXPECT_EQ(one.Send("more"), AW_OK);
  EXPECT_EQ(one.transport->taken, 4U);
}

TYPED_TEST(StreamAllocations, AMessageGoesOutWhole) {
  this->ExpectSendsWholeOrNothing(static_cast<std::size_t>(-1), false, 60000);
}

TYPED_TEST(StreamAllocations, AMessageThatMustWaitIsKeptWholeOrRefused) {
  for (const std::size_t size : {64, 60000, 200000})
    this->ExpectSendsWholeOrNothing(0, false, size);
}

TYPED_TEST(StreamAllocations, AMessageThatIsCutIsKeptOrEndsTheConnection) {
  for (const std::size_t size : {64, 60000, 200000})
    this->ExpectSendsWholeOrNothing(20, false, size);
}

TYPED_TEST(StreamAllocations, AMessageBehindOthersIsKeptWholeOrRefused) {
  for (const std::size_t room : {0, 3, 20})
    for (const std::size_t size : {64, 60000, 200000})
      this->ExpectSendsWholeOrNothing(room, true, size);
}

TYPED_TEST(StreamAllocations, WhatWaitsGoesOutWithoutAny) {
  Attached<TypeParam> one;
  one.transport->room = 0;
  ASSERT_EQ(one.Send(std::string(60000, 'w')), AW_OK);
  {
    const Exhaustion none;
    one.MakeRoom();
  }
  EXPECT_EQ(one.transport->taken, 60000U);
  EXPECT_EQ(one.stream->GetSendQueueLength(), 0U);
}

// A hundred frames in events of all sorts: a part of one, several, a chain.
std::vector<std::unique_ptr<CAWMessageBlock>> MakeEvents() {
  std::vector<std::unique_ptr<CAWMessageBlock>> events;
  for (const std::size_t length : {500, 700, 1800, 30000, 60000, 4500, 500, 2000}) {
    events.push_back(std::make_unique<CAWMessageBlock>(length));
    events.back()->Write(std::string(length, 'r').data(), length);
  }
  events[5]->Append(events[6].release());
  events.erase(events.begin() + 6);
  return events;
}

TYPED_TEST(StreamAllocations, EventsAreTakenWholeOrTheConnectionEndsForThatReason) {
  const auto receiveAll = [](Attached<TypeParam>& one, const auto& events) {
    for (const auto& event : events)
      if (one.stream->ends == 0) one.Receive(*event);
  };
  // Some streams offer the rest of an event again: see their comments.
  Attached<TypeParam> undisturbed;
  receiveAll(undisturbed, MakeEvents());
  ASSERT_GE(undisturbed.stream->frames, 100U);
  const EmptyPool outer;
  for (EachAllocation each; each.Next();) {
    Attached<TypeParam> one;
    const auto events = MakeEvents();
    const EmptyPool empty;
    each.Try([&] { receiveAll(one, events); });
    if (one.stream->ends == 0) {
      EXPECT_EQ(one.stream->frames, undisturbed.stream->frames);
      continue;
    }
    EXPECT_TRUE(each.HasFailed());
    EXPECT_EQ(one.stream->ends, 1);
    EXPECT_EQ(one.stream->reason, static_cast<long>(AW_ERROR_FAILURE));
    EXPECT_EQ(one.transport->disconnects, 1);
    this->ExpectToServe(one);
    one.stream->frames = 0;
    const std::string bytes(kFrameLength, 'r');
    CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
    one.Receive(block);
    EXPECT_EQ(one.stream->frames, 1U);
  }
}

TYPED_TEST(StreamAllocations, ClosingNeedsNone) {
  Attached<TypeParam> one;
  one.transport->room = 0;
  ASSERT_EQ(one.Send("waits"), AW_OK);
  CAWMessageBlock half("half", 4, CAWMessageBlock::borrow);
  one.Receive(half);
  AWResult result = AW_ERROR_FAILURE;
  {
    const Exhaustion none;
    result = TypeParam::Close(*one.stream);
  }
  EXPECT_EQ(result, AW_OK);
  EXPECT_EQ(one.transport->disconnects, 1);
  EXPECT_EQ(one.transport->GetReferences(), 2U);  // this test's
}

// --- connecting ---

template <class Kind>
class SessionAllocations : public ::testing::Test {};

using SessionKinds = ::testing::Types<TcpSessions, TlsSessions, PtlsSessions>;
TYPED_TEST_SUITE(SessionAllocations, SessionKinds, KindNames);

// The libraries below have no memory either.
struct NoConnectors {
  NoConnectors() {
    tcp.createResult = tls.createResult = ptls.createResult = AW_ERROR_FAILURE;
    tcp.kinds.reserve(1);
  }
  FakeTcpManager tcp;
  FakeTlsManager tls;
  FakeSslPtcpManager ptls;
};

TYPED_TEST(SessionAllocations, AConnectWithoutAnyIsRefusedAndTheSessionCanBeAttached) {
  NoConnectors managers;
  Attached<TypeParam> one;
  const CAWInetAddr peer("198.51.100.100", 65000);
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = one.stream->Connect(peer, nullptr);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_EQ(one.transport->disconnects, 1);
  EXPECT_EQ(one.stream->ends, 0);
  const utils::CZARNMetrics metrics = utils::ZARNTakeMetrics(20000);
  ASSERT_EQ(metrics.streams.size(), 1U);
  EXPECT_TRUE(metrics.streams[0].isClient);
  EXPECT_EQ(metrics.streams[0].peer, "");  // there was no room for its name
  one.fresh = new SwallowingTransport<typename TypeParam::Platform>;
  ASSERT_EQ(one.Attach(), AW_OK);
  EXPECT_EQ(one.Send("more"), AW_OK);
}

TYPED_TEST(SessionAllocations, AConnectionIsTakenOverWithoutAny) {
  Attached<TypeParam> one;
  one.fresh = new SwallowingTransport<typename TypeParam::Platform>;
  {
    const Exhaustion none;
    if constexpr (requires { one.stream->OnSSLConnected(0, one.fresh.Get()); })
      one.stream->OnSSLConnected(0, one.fresh.Get());
    else
      one.stream->OnConnectIndication(0, one.fresh.Get(), nullptr);
  }
  one.transport = one.fresh;
  EXPECT_EQ(one.stream->ends, 0);
  EXPECT_EQ(one.Send("more"), AW_OK);
  EXPECT_EQ(one.transport->taken, 4U);
}

TYPED_TEST(SessionAllocations, TextsOfKeyAndCertificateAreKeptOrRefused) {
  if constexpr (requires(typename TypeParam::Stream & stream) { stream.PrivateKey(""); }) {
    const std::string text(5000, 't');
    Attached<TypeParam> one;
    AWResult results[2] = {AW_OK, AW_OK};
    {
      const Exhaustion none;
      results[0] = one.stream->PrivateKey(text);
      results[1] = one.stream->Certificate(text);
    }
    EXPECT_EQ(results[0], AW_ERROR_FAILURE);
    EXPECT_EQ(results[1], AW_ERROR_FAILURE);
    EXPECT_EQ(one.stream->PrivateKey(text), AW_OK);
    EXPECT_EQ(one.stream->Certificate(text), AW_OK);
  }
}

}  // namespace
}  // namespace zarn::test
