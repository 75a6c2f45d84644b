// ShmIPCConnector_test.cpp - connecting: how it ends, when that is told, and how it is given up.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "DescriptorShortage.h"
#include "OpenDescriptors.h"
#include "RawPeer.h"
#include "TraceLines.h"
#include "VirtualSlot.h"

namespace fshmipc {
namespace {

using namespace zarn::test;

AWResult Connect(IAWShmIPCConnector& connector, ShmIndicationSink& sink) {
  return connector.AsyncConnect(&sink, kShmServer, 0, nullptr);
}

// The reason of a connect, which comes once, later, and without a transport when it failed.
long Reason() {
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  EXPECT_EQ(sink.count, 0);
  EXPECT_TRUE(Await([&] { return sink.count != 0; }));
  Turn();
  EXPECT_EQ(sink.count, 1);
  if (sink.got.empty()) return -1;
  EXPECT_EQ(sink.got[0].id, connector.Get());
  return sink.got[0].reason;
}

// Open descriptors and mapped connections of this process.
struct Held {
  std::ptrdiff_t descriptors = CountOpenDescriptors();
  int mappings = CountMappings();

  static int CountMappings() {
    int count = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
      count += line.find("zarn-shmipc") != std::string::npos;
    return count;
  }
  friend bool operator==(const Held&, const Held&) = default;
};

TEST(ShmIPCConnector, ConnectsToAnEndpointAndClaimsNothingUnlessTold) {
  const ShmSystem system;
  ShmServer server;
  EXPECT_EQ(Reason(), 0);
  const auto transport = server.Accept();
  EXPECT_EQ(transport->GetPeerAddr(), CAWShmIPCAddr());
  EXPECT_EQ(transport->GetLocalAddr(), kShmServer);
}

TEST(ShmIPCConnector, NobodyThereIsOneIndicationWithItsReason) {
  const ShmSystem system;
  EXPECT_EQ(Reason(), ENOENT);
  PlainSocket dead = PlainSocket::Stream();
  ASSERT_EQ(dead.Bind(system.GetEndpoint()), 0);
  EXPECT_EQ(Reason(), ECONNREFUSED);
  CAWShmIPCManager::Instance()->SetSystemPath(system.GetPath() + "/no/such/place");
  EXPECT_EQ(Reason(), ENOENT);
}

TEST(ShmIPCConnector, NoSystemDirectoryIsAnIndicationTooAndTraced) {
  const TraceLines trace;
  CAWShmIPCManager::Instance()->SetSystemPath("");
  EXPECT_EQ(Reason(), static_cast<long>(AW_ERROR_FAILURE));
  EXPECT_EQ(trace.Get().size(), 1U);
}

TEST(ShmIPCConnector, LackOfDescriptorsIsAnIndicationToo) {
  const ShmSystem system;
  ShmServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(Connect(*connector, sink), AW_OK);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  }
  EXPECT_EQ(sink.got[0].reason, EMFILE);
  EXPECT_EQ(Reason(), 0);
}

TEST(ShmIPCConnector, LimitOfFileSizesIsAnIndicationAndNoSignal) {
  const ShmSystem system;
  ShmServer server;
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  rlimit low = before;
  low.rlim_cur = 1024 * 1024;
  ::setrlimit(RLIMIT_FSIZE, &low);
  const long reason = Reason();
  ::setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(reason, EFBIG);
}

TEST(ShmIPCConnector, ListenerThatNeverAcceptsWelcomesOrAnswersTimesOut) {
  for (const char last : {'n', 'a', 'w'}) {  // what it still does: nothing, accept, welcome
    HandClock clock;
    ForeignServer server;
    const Held before;
    const auto connector = MakeShmConnector();
    ShmIndicationSink sink;
    EXPECT_EQ(Connect(*connector, sink), AW_OK);
    Turn();
    clock.Advance(std::chrono::milliseconds(1500));
    PlainSocket peer(-1);
    if (last != 'n') peer = last == 'a' ? server.Accept() : server.Welcome();
    clock.Advance(std::chrono::milliseconds(499));
    EXPECT_EQ(sink.count, 0);
    clock.Advance(std::chrono::milliseconds(1));
    EXPECT_EQ(sink.count, 1);
    EXPECT_EQ(sink.got.at(0).reason, ETIMEDOUT);
    peer.Close();
    EXPECT_EQ(Held(), before);
  }
}

// Every message that passes a descriptor has bytes, too.
TEST(ShmIPCConnector, ListenerThatDoesNotAcceptHoldsNoMemoryOfOurs) {
  ForeignServer server;
  const Held before;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  Turn();
  EXPECT_EQ(Held::CountMappings(), 0);
  {
    PlainSocket late = server.Accept();
    Turn();
    EXPECT_EQ(late.Receive(), "");
    EXPECT_FALSE(late.ended);
  }
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  Turn();
  connector->CancelConnect();
  {
    PlainSocket late = server.Accept();
    EXPECT_EQ(late.Receive(), "");
    EXPECT_TRUE(late.ended);
  }
  EXPECT_EQ(Held(), before);
}

// What a connect ends with when it is welcomed so, which is never followed by a greeting.
long ReasonOfWelcome(const std::string& welcome, bool close) {
  ForeignServer server;
  const Held before;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  {
    PlainSocket peer = server.Accept();
    peer.Send(welcome);
    if (close) peer.Close();
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
    EXPECT_EQ(close ? "" : peer.Receive(), "");
  }
  EXPECT_EQ(Held(), before);
  return sink.got.empty() ? -1 : sink.got[0].reason;
}

std::string WelcomeOf(std::uint16_t version) {
  const Welcome welcome{0x4d48535a, version, 0};
  return {reinterpret_cast<const char*>(&welcome), sizeof welcome};
}

TEST(ShmIPCConnector, WelcomeOfAnotherKindIsRefusedAndNothingIsMade) {
  for (const int version : {0, kLayoutVersion - 1, kLayoutVersion + 1, 65535}) {
    const std::string other = WelcomeOf(static_cast<std::uint16_t>(version));
    EXPECT_EQ(ReasonOfWelcome(other, false), EPROTONOSUPPORT) << version;
    EXPECT_EQ(ReasonOfWelcome(other + "and more", false), EPROTONOSUPPORT) << version;
    EXPECT_EQ(ReasonOfWelcome(other.substr(0, 6), true), EPROTONOSUPPORT) << version;
  }
  EXPECT_EQ(ReasonOfWelcome("220 mail.example.org ESMTP", false), EPROTO);
  EXPECT_EQ(ReasonOfWelcome(std::string(8, '\0'), false), EPROTO);
  EXPECT_EQ(ReasonOfWelcome("", true), ECONNRESET);
}

TEST(ShmIPCConnector, WelcomeInPiecesIsRefusedAtItsFirst) {
  const std::string right = WelcomeOf(kLayoutVersion);
  for (std::size_t length = 1; length < right.size(); ++length)
    EXPECT_EQ(ReasonOfWelcome(right.substr(0, length), false), EPROTO) << length;
}

TEST(ShmIPCConnector, WhatFollowsTheWelcomeIsTakenForTheAnswer) {
  for (const std::string surplus : {"?", "and much more than an answer"}) {
    ForeignServer server;
    const Held before;
    const auto connector = MakeShmConnector();
    ShmIndicationSink sink;
    EXPECT_EQ(Connect(*connector, sink), AW_OK);
    PlainSocket peer = server.Accept();
    peer.Send(WelcomeOf(kLayoutVersion) + surplus);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
    EXPECT_EQ(sink.got.at(0).reason, EPROTO);
    peer.Close();
    EXPECT_EQ(Held(), before);
  }
}

// What a connect ends with when it is answered so.
long ReasonOfAnswer(const std::string& answer, bool close) {
  ForeignServer server;
  const Held before;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  {
    PlainSocket peer = server.Welcome();
    peer.Send(answer);
    if (close) peer.Close();
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  }
  if (sink.got.empty()) return -1;
  sink.got[0].transport = nullptr;
  EXPECT_EQ(Held(), before);
  return sink.got[0].reason;
}

std::string Answer(std::uint16_t version, std::uint32_t result) {
  const GreetingAnswer answer{0x4d48535a, version, 0, result};
  return {reinterpret_cast<const char*>(&answer), sizeof answer};
}

TEST(ShmIPCConnector, AnswerOfTheOtherSideIsTheReason) {
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion, 0), false), 0);
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion, ENOMEM), false), ENOMEM);
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion, EPROTO), true), EPROTO);
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion, EPROTONOSUPPORT), true), EPROTONOSUPPORT);
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion, EAGAIN), false), ENOMEM);
}

TEST(ShmIPCConnector, AnswerOfAnotherKindIsRefused) {
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion + 1, 0), false), EPROTONOSUPPORT);
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion + 1, 0) + "and more", false), EPROTONOSUPPORT);
  EXPECT_EQ(ReasonOfAnswer("220 mail.example.org ESMTP", false), EPROTO);
  EXPECT_EQ(ReasonOfAnswer("x", false), EPROTO);
  EXPECT_EQ(ReasonOfAnswer(Answer(kLayoutVersion, 1000000), false), EPROTO);
  EXPECT_EQ(ReasonOfAnswer("", true), ECONNRESET);
}

TEST(ShmIPCConnector, WakeUpRightBehindTheAnswerIsSeen) {
  ForeignServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  PlainSocket peer = server.Welcome();
  Greeting greeting;
  FileDescriptor memory;
  ASSERT_EQ(ReceiveGreeting(peer.Get(), greeting, memory), 0);
  EXPECT_EQ(greeting.ringSize, kDefaultRingSize);
  ShmSegment segment;
  ASSERT_EQ(segment.Attach(memory, greeting.ringSize), 0);
  RingWriter writer(segment.AcceptorRing());
  writer.Write("early", 5);
  writer.Publish();
  peer.Send(Answer(kLayoutVersion, 0) + "w");
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  ShmTransportSink events;
  ASSERT_EQ(sink.got.at(0).transport->OpenWithSink(&events), AW_OK);
  EXPECT_TRUE(Await([&] { return events.received == "early"; }));
}

TEST(ShmIPCConnector, MisuseIsRefused) {
  const ShmSystem system;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(connector->AsyncConnect(nullptr, kShmServer, 0, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  EXPECT_EQ(Connect(*connector, sink), AW_ERROR_FAILURE);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  bool flag = true;
  EXPECT_EQ(connector->SetOption(1, &flag), AW_ERROR_FAILURE);
  EXPECT_EQ(connector->SetOption(AW_OPT_ALLOW_ANY_USER, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(connector->SetOption(AW_OPT_ALLOW_ANY_USER, &flag), AW_OK);
  for (const std::uint32_t size : {0U, 4096U, 65535U, 100000U, 512U * 1024 * 1024}) {
    std::uint32_t value = size;
    EXPECT_EQ(connector->SetOption(AW_OPT_RING_SIZE, &value), AW_ERROR_FAILURE) << size;
  }
}

TEST(ShmIPCConnector, RingIsAsLargeAsTheConnectorSays) {
  for (const std::uint32_t size : {64U * 1024, 4U * 1024 * 1024}) {
    ShmPair p(size);
    EXPECT_EQ(p.client.Fill().size(), size);
    EXPECT_EQ(p.server.Fill().size(), size);
  }
}

TEST(ShmIPCConnector, MayBeUsedAgainAlsoInsideItsIndication) {
  const ShmSystem system;
  ShmServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  sink.onIndication = [&](IAWShmIPCTransport*) {
    if (sink.count != 0) return;
    EXPECT_EQ(Connect(*connector, sink), AW_OK);
  };
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 2; }));
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 3; }));
  for (const auto& indication : sink.got) EXPECT_EQ(indication.reason, 0);
}

// --- giving up ---

// What has happened when it is given up: nothing yet, it is connected, the welcome is there, the
// greeting is sent, the answer is there.
enum class Stage { asked, connected, welcomed, greeted, answered };
constexpr Stage kStages[] = {Stage::asked, Stage::connected, Stage::welcomed, Stage::greeted,
                             Stage::answered};

void GiveUpAt(Stage stage, const std::function<void(CAWAutoPtr<IAWShmIPCConnector>&)>& giveUp) {
  ForeignServer server;
  HandClock clock;
  const Held before;
  auto connector = MakeShmConnector();
  auto sink = std::make_unique<ShmIndicationSink>();
  EXPECT_EQ(Connect(*connector, *sink), AW_OK);
  PlainSocket peer(-1);
  if (stage != Stage::asked) peer = stage < Stage::greeted ? server.Accept() : server.Welcome();
  if (stage == Stage::welcomed) peer.Send(WelcomeOf(kLayoutVersion));
  if (stage == Stage::answered) peer.Send(Answer(kLayoutVersion, 0));
  giveUp(connector);
  EXPECT_EQ(sink->count, 0);
  sink.reset();                                  // an indication would touch it
  clock.Advance(std::chrono::milliseconds(10));  // the pause between two tries
  Turn();
  if (stage != Stage::asked) {
    std::string received;
    EXPECT_TRUE(Await([&] {
      received += peer.Receive();
      return peer.ended;
    }));
    EXPECT_EQ(received.size(), stage < Stage::greeted ? 0 : sizeof(Greeting));
    peer.Close();
  }
  connector = nullptr;
  Turn();
  EXPECT_EQ(Held(), before);
}

TEST(ShmIPCConnector, CancelledConnectIsNeverIndicatedAtAnyStage) {
  for (const Stage stage : kStages) {
    GiveUpAt(stage, [](CAWAutoPtr<IAWShmIPCConnector>& connector) {
      EXPECT_EQ(connector->CancelConnect(), AW_OK);
      EXPECT_EQ(connector->CancelConnect(), AW_OK);
    });
  }
}

TEST(ShmIPCConnector, LettingGoCancelsAtAnyStageOnAnyThread) {
  for (const Stage stage : kStages) {
    GiveUpAt(stage, [](CAWAutoPtr<IAWShmIPCConnector>& connector) { connector = nullptr; });
    GiveUpAt(stage, [](CAWAutoPtr<IAWShmIPCConnector>& connector) {
      std::thread([&] { connector = nullptr; }).join();
    });
  }
}

TEST(ShmIPCConnector, MayConnectAgainAfterACancel) {
  const ShmSystem system;
  ShmServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  connector->CancelConnect();
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(sink.got[0].reason, 0);
}

TEST(ShmIPCConnector, CancelAfterTheEndTouchesNothing) {
  const ShmSystem system;
  ShmServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(connector->CancelConnect(), AW_OK);
  ShmEnd client{sink.got[0].transport, {}};
  client.Open();
  EXPECT_EQ(client.Send("alive"), AW_OK);
  ShmEnd accepted{server.Accept(), {}};
  accepted.Open();
  EXPECT_TRUE(Await([&] { return accepted.sink.received == "alive"; }));
  EXPECT_FALSE(client.sink.ended);
}

TEST(ShmIPCConnector, MayBeLetGoInsideItsIndicationWithAllElse) {
  for (const bool fails : {false, true}) {
    const ShmSystem system;
    auto server = fails ? nullptr : std::make_unique<ShmServer>();
    auto connector = MakeShmConnector();
    ShmIndicationSink sink;
    sink.keep = false;
    sink.onIndication = [&](IAWShmIPCTransport*) {
      connector = nullptr;
      server = nullptr;
    };
    EXPECT_EQ(Connect(*connector, sink), AW_OK);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
    Turn();
    EXPECT_EQ(Held::CountMappings(), 0);
  }
}

TEST(ShmIPCConnector, ConnectionThatNobodyTookIsClosed) {
  const ShmSystem system;
  ShmServer server;
  const auto connector = MakeShmConnector();
  ShmIndicationSink sink;
  sink.keep = false;
  EXPECT_EQ(Connect(*connector, sink), AW_OK);
  ShmEnd end{server.Accept(), {}};
  end.Open();
  EXPECT_TRUE(Await([&] { return end.sink.ended; }));
  EXPECT_EQ(end.sink.reason, 0);
}

TEST(ShmIPCConnector, ConnectionsComeAndGoWithoutALeak) {
  const ShmSystem system;
  ShmServer server;
  Reason();
  server.Accept();
  Turn();
  const Held before;
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Reason(), 0);
    server.Accept();
  }
  Turn();
  EXPECT_EQ(Held(), before);
}

TEST(ShmIPCConnector, VirtualFunctionsOfConnectorAcceptorAndSinkKeepTheirSlots) {
  EXPECT_EQ(VirtualSlot(&IAWShmIPCConnector::AddReference), 0);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCConnector::ReleaseReference), 1);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCConnector::SetOption), 2);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCAcceptorConnectorSink::OnShmIPCConnectIndication), 0);
}

}  // namespace
}  // namespace fshmipc
