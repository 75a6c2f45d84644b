// IPCTransport_send_test.cpp - sending: gathering, partial sends, order, and what happens to taken
// bytes when a connection is closed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include "ChildTest.h"
#include "RealIpc.h"

namespace fipc {
namespace {

using namespace zarn::test;

// --- gathering ---

TEST(IPCTransportSend, SmallSendsOfATurnAreOneWrite) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = "message " + std::to_string(i) + ";";
    EXPECT_EQ(c.Send(text), AW_OK);
    expected += text;
  }
  EXPECT_EQ(c.Counters().systemCallsSent, 0U);
  EXPECT_EQ(c.Counters().queuedBytes, expected.size());
  RunReady();
  EXPECT_EQ(c.Counters().systemCallsSent, 1U);
  EXPECT_EQ(c.Counters().blocksSent, 1000U);
  EXPECT_EQ(c.Counters().bytesSent, expected.size());
  EXPECT_EQ(c.Counters().queuedBytes, 0U);
  EXPECT_EQ(c.ReceiveBytes(expected.size()), expected);
}

TEST(IPCTransportSend, GatheredBytesAreWrittenWhenTheBufferIsFull) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = Pattern(100, expected.size());
    EXPECT_EQ(c.Send(text), AW_OK);
    expected += text;
  }
  EXPECT_EQ(c.Counters().systemCallsSent, 1U);
  EXPECT_EQ(c.ReceiveBytes(expected.size()), expected);
  EXPECT_EQ(c.Counters().systemCallsSent, 2U);
  EXPECT_LE(c.Counters().queuedHighMark, 65536U);
}

TEST(IPCTransportSend, LargeChainTakesWhatWasGatheredAlong) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  EXPECT_EQ(c.Send("first "), AW_OK);
  CAWMessageBlock head("head ", 5, CAWMessageBlock::borrow);
  const std::string body = Pattern(65000);
  CAWMessageBlock payload(body.data(), body.size(), CAWMessageBlock::borrow);
  const CAWMessageBlock::LinkForCall link(head, payload);
  EXPECT_EQ(c.transport->SendData(head, nullptr), AW_OK);
  EXPECT_EQ(c.Counters().systemCallsSent, 1U);
  EXPECT_EQ(head.GetChainedLength(), 0U);
  EXPECT_EQ(c.ReceiveBytes(65011), "first head " + body);
}

TEST(IPCTransportSend, SentBlocksBelongToTheCallerAgainAtOnce) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string text = "before";
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  EXPECT_EQ(c.transport->SendData(block, nullptr), AW_OK);
  text.assign("AFTER!");
  EXPECT_EQ(c.ReceiveBytes(6), "before");
}

TEST(IPCTransportSend, NothingIsTakenAndSentAsNothing) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  CAWMessageBlock empty(10);
  CAWIPCTransportParameter parameter;
  EXPECT_EQ(c.transport->SendData(empty, &parameter), AW_OK);
  RunReady();
  EXPECT_EQ(c.Counters().systemCallsSent, 0U);
}

TEST(IPCTransportSend, ChainOfManyBlocksIsWrittenWhole) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  CAWMessageBlock head(0);
  CAWMessageBlock* last = &head;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    const std::string text = Pattern(100, expected.size());
    last->Append(new CAWMessageBlock(text.size()));
    last = last->GetNext();
    EXPECT_EQ(last->Write(text.data(), text.size()), AW_OK);
    expected += text;
  }
  EXPECT_EQ(c.transport->SendData(head, nullptr), AW_OK);
  EXPECT_EQ(c.ReceiveBytes(expected.size()), expected);
  EXPECT_LE(c.Counters().systemCallsSent, 10U);
}

// --- partial sends ---

TEST(IPCTransportSend, LargeSendStopsAtTheFirstByteThatWasNotTaken) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  const std::string text = Pattern(5000000);
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  ASSERT_EQ(c.transport->SendData(block, nullptr), AW_ERROR_PARTIAL_DATA);
  const auto taken = static_cast<std::size_t>(block.GetReadPtr() - text.data());
  EXPECT_GT(taken, 0U);
  EXPECT_LT(taken, text.size());
  EXPECT_EQ(c.sink.sends, 0);  // not from inside
  std::string got;
  EXPECT_TRUE(Await([&] {
    got += c.peer.Receive();
    return c.sink.sends != 0;
  }));
  EXPECT_EQ(got + c.peer.Receive(), text.substr(0, taken));
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_EQ(c.sink.sends, 1);
  EXPECT_EQ(c.Counters().partialSends, 1U);
}

TEST(IPCTransportSend, ManyRefusalsAreOneRoom) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  while (c.Send(Pattern(1000)) == AW_OK) {
  }
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(c.Send(Pattern(1000)), AW_ERROR_PARTIAL_DATA);
    EXPECT_EQ(c.Send(Pattern(100000)), AW_ERROR_PARTIAL_DATA);
  }
  EXPECT_EQ(c.sink.sends, 0);
  EXPECT_TRUE(Await([&] {
    c.peer.Receive();
    return c.sink.sends != 0;
  }));
  for (int i = 0; i < 20; ++i) {
    c.peer.Receive();
    RunReady();
  }
  EXPECT_EQ(c.sink.sends, 1);
}

TEST(IPCTransportSend, NoRoomIsToldThatNobodyAskedFor) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  EXPECT_EQ(c.Send(Pattern(100000)), AW_OK);
  EXPECT_EQ(c.ReceiveBytes(100000).size(), 100000U);
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_EQ(c.sink.sends, 0);
}

// A sender as streams are: keeps the chain, goes on when there is room.
TEST(IPCTransportSend, NothingIsLostOrReorderedWhateverTheSizes) {
  for (std::uint32_t seed = 0; seed < 10; ++seed) {
    std::mt19937 random(seed);
    Connection c;
    const std::string all = Pattern(3000000);
    std::size_t at = 0;
    bool room = true;
    const auto push = [&] {
      while (room && at < all.size()) {
        static constexpr std::size_t kLargest[] = {10, 300, 4096, 5000, 70000, 400000};
        const std::size_t size = std::min(all.size() - at, 1 + random() % kLargest[random() % 6]);
        CAWMessageBlock head(all.data() + at, size / 3, CAWMessageBlock::borrow);
        CAWMessageBlock tail(all.data() + at + size / 3, size - size / 3, CAWMessageBlock::borrow);
        const CAWMessageBlock::LinkForCall link(head, tail);
        const AWResult result = c.transport->SendData(head, nullptr);
        ASSERT_TRUE(result == AW_OK || result == AW_ERROR_PARTIAL_DATA);
        ASSERT_EQ(result == AW_OK, head.GetChainedLength() == 0);
        at += size - head.GetChainedLength();
        room = result == AW_OK && random() % 20 != 0;
        if (result == AW_OK && !room) break;  // a turn's end in between
      }
    };
    c.sink.onSend = [&](IAWIPCTransport*) { room = true; };
    c.transport->OpenWithSink(&c.sink);
    std::string got;
    EXPECT_TRUE(Await([&] {
      if (!room && c.Counters().queuedBytes == 0) room = true;
      push();
      got += c.peer.Receive(1 + random() % 200000);
      return got.size() == all.size();
    }));
    EXPECT_TRUE(got == all) << "seed " << seed;
  }
}

TEST(IPCTransportSend, SendAfterTheEndIsAnError) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  c.peer.Close();
  EXPECT_TRUE(Await([&] { return c.sink.ended; }));
  EXPECT_NE(c.Send("x"), AW_OK);
  EXPECT_NE(c.Send("x"), AW_ERROR_PARTIAL_DATA);
  EXPECT_NE(c.Send(Pattern(100000)), AW_OK);
}

// --- closing with bytes on their way ---

TEST(IPCTransportSend, TakenBytesAreWrittenAfterDisconnect) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string expected;
  for (;;) {
    const std::string text = Pattern(1000, expected.size());
    if (c.Send(text) != AW_OK) break;
    expected += text;
  }
  EXPECT_GT(c.Counters().queuedBytes, 0U);
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  c.transport = nullptr;
  EXPECT_EQ(c.ReceiveAll(), expected);
  EXPECT_EQ(c.sink.sends, 0);
}

TEST(IPCTransportSend, LingerDataFollowsWhatWasTaken) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string expected;
  while (c.Send(Pattern(1000, expected.size())) == AW_OK)
    expected += Pattern(1000, expected.size());
  const std::string rest = Pattern(2000000, expected.size());
  {
    CAWMessageBlock chain(rest.data(), 1000000, CAWMessageBlock::borrow);
    auto* second = new CAWMessageBlock(1000000);
    EXPECT_EQ(second->Write(rest.data() + 1000000, 1000000), AW_OK);
    chain.Append(second);
    EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &chain), AW_OK);
    EXPECT_EQ(chain.GetChainedLength(), rest.size());
  }
  EXPECT_EQ(c.transport->Disconnect(0), AW_OK);
  CAWMessageBlock late("x", 1, CAWMessageBlock::borrow);
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &late), AW_ERROR_NOT_INITIALIZED);
  c.transport = nullptr;
  EXPECT_TRUE(c.ReceiveAll() == expected + rest);
}

TEST(IPCTransportSend, LingerOfZeroDropsWhatTheSystemDoesNotTake) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  std::string expected;
  while (c.Send(Pattern(1000, expected.size())) == AW_OK)
    expected += Pattern(1000, expected.size());
  std::uint32_t none = 0;
  EXPECT_EQ(c.transport->SetOption(keelbase::AW_OPT_LINGER, &none), AW_OK);
  const std::uint64_t written = c.Counters().bytesSent;
  c.transport->Disconnect(0);
  EXPECT_EQ(c.ReceiveAll(), expected.substr(0, written));
}

TEST(IPCTransportSend, LingerEndsWithItsTime) {
  HandClock clock;
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  PlainSocket peer = PlainSocket::Stream();
  auto transport = server.AcceptFrom(peer);
  TransportSink sink;
  transport->OpenWithSink(&sink);
  const std::string text = Pattern(3000);
  AWResult result = AW_OK;
  while (result == AW_OK) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    result = transport->SendData(block, nullptr);
  }
  transport->Disconnect(0);
  pollfd watched{peer.Get(), POLLRDHUP, 0};
  clock.Advance(std::chrono::milliseconds(1999));
  EXPECT_EQ(::poll(&watched, 1, 0), 0);
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(::poll(&watched, 1, 0), 1);
}

TEST(IPCTransportSend, LingerEndsWhenThePeerGoes) {
  Connection c;
  c.transport->OpenWithSink(&c.sink);
  while (c.Send(Pattern(1000)) == AW_OK) {
  }
  c.transport->Disconnect(0);
  c.peer.Close();
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_EQ(c.Counters().queuedBytes, 0U);
}

// --- closing and ending the process ---

// What the exiting process sends before it goes.
std::string ExitText() { return Pattern(4000000); }

void ConnectSendAndClose(const std::string& path, IndicationSink& sink, TransportSink& events,
                         bool exitInside) {
  static CAWAutoPtr<IAWIPCConnector> connector;
  connector = MakeConnector();
  sink.keep = false;
  sink.onIndication = [&events, exitInside](IAWIPCTransport* transport) {
    if (transport == nullptr) std::exit(9);
    transport->OpenWithSink(&events);
    static std::string all = ExitText();
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    transport->SendData(block, nullptr);  // as much as goes, then the rest as a stream would
    if (transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block) != AW_OK) std::exit(8);
    transport->Disconnect(0);
    if (exitInside) std::exit(0);
  };
  if (connector->AsyncConnect(&sink, CAWIPCAddr(path), 0, nullptr) != AW_OK) std::exit(7);
}

// In a child: connects on the adopted network thread or on the started task thread, and ends there
// or on the main thread.
void RunExitingChild(const std::string& role) {
  using keelbase::CAWThreadManager;
  static IndicationSink sink;
  static TransportSink events;
  const std::string path = ChildTest::Argument();
  const bool inside = role.find("inside") != std::string::npos;
  if (role.find("adopted") == 0) {
    ConnectSendAndClose(path, sink, events, inside);
    if (role == "adopted inside run")
      CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK)->Run();
    Await([] { return sink.count == 1; });
    std::exit(0);
  }
  auto* task = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_TASK);
  task->Call([&] { ConnectSendAndClose(path, sink, events, inside); });
  while (task->Call([] { return sink.count; }) == 0) std::this_thread::yield();
  std::exit(0);
}

TEST(IPCTransportSend, ProcessThatClosesAndEndsLosesNothing) {
  if (!ChildTest::Role().empty()) RunExitingChild(ChildTest::Role());
  for (const char* role :
       {"adopted", "adopted inside", "adopted inside run", "started", "started inside"}) {
    const TempDir dir;
    PlainSocket listening = PlainSocket::Stream();
    ASSERT_EQ(listening.Bind(dir.GetPath() + "/1_2"), 0);
    ASSERT_EQ(listening.Listen(), 0);
    ChildTest child(role, dir.GetPath() + "/1_2");
    pollfd ready{listening.Get(), POLLIN, 0};
    ASSERT_EQ(::poll(&ready, 1, 20000), 1) << role << child.GetErrors();
    PlainSocket peer = listening.Accept();
    std::string got;
    while (!peer.ended) {
      pollfd more{peer.Get(), POLLIN, 0};
      ASSERT_EQ(::poll(&more, 1, 20000), 1) << role;
      got += peer.Receive(50000);
    }
    EXPECT_EQ(child.Wait(), 0) << role << child.GetErrors();
    EXPECT_TRUE(got == ExitText()) << role << " " << got.size();
  }
}

}  // namespace
}  // namespace fipc
