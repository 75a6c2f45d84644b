// IPCConnector_test.cpp - connecting: how it ends, when that is told, and how it is given up.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DescriptorShortage.h"
#include "PassDescriptors.h"
#include "RealIpc.h"
#include "VirtualSlot.h"

namespace fipc {
namespace {

using namespace zarn::test;

// While a listener's queue is full. The first try comes at once.
constexpr std::chrono::milliseconds kPauseBetweenTries{10};

AWResult Connect(IAWIPCConnector& connector, IndicationSink& sink, const std::string& path) {
  return connector.AsyncConnect(&sink, CAWIPCAddr(path), 0, nullptr);
}

// The reason of a connect to `path`, which comes once, later, and without a transport when it
// failed.
long ReasonOf(const std::string& path) {
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, path), AW_OK);
  EXPECT_EQ(sink.count, 0);
  EXPECT_TRUE(Await([&] { return sink.count != 0; }));
  Turn();
  EXPECT_EQ(sink.count, 1);
  if (sink.got.empty()) return -1;
  EXPECT_EQ(sink.got[0].id, connector.Get());
  return sink.got[0].reason;
}

TEST(IPCConnector, ConnectsToAnEndpoint) {
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  EXPECT_EQ(ReasonOf(dir.GetPath() + "/1_2"), 0);
  EXPECT_NE(server.Accept(), nullptr);
}

TEST(IPCConnector, EachFailureIsOneIndicationWithItsReason) {
  const TempDir dir;
  const std::string base = dir.GetPath();
  EXPECT_EQ(ReasonOf(base + "/nobody"), ENOENT);
  EXPECT_EQ(ReasonOf(base + "/no/such/directory"), ENOENT);
  EXPECT_EQ(ReasonOf(""), EINVAL);
  EXPECT_EQ(ReasonOf(base + "/"), EINVAL);
  EXPECT_EQ(ReasonOf(base + "/.."), EINVAL);
  EXPECT_EQ(ReasonOf(base + std::string("\0x/1_2", 6)), EINVAL);
  EXPECT_EQ(ReasonOf(base + "/" + std::string(300, 'x')), ENAMETOOLONG);
  PlainSocket dead = PlainSocket::Stream();
  ASSERT_EQ(dead.Bind(base + "/stale"), 0);
  EXPECT_EQ(ReasonOf(base + "/stale"), ECONNREFUSED);
  EXPECT_EQ(ReasonOf(base + "/stale/below"), ENOTDIR);
  std::filesystem::create_directory(base + "/directory");
  EXPECT_EQ(ReasonOf(base + "/directory"), ECONNREFUSED);
}

TEST(IPCConnector, OwnNameThatCannotBeToldIsAnIndicationToo) {
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  const std::pair<std::string, long> names[] = {{"/" + std::string(200, '3'), ENAMETOOLONG},
                                                {std::string("\0x/3_4", 6), EINVAL}};
  for (const auto& [name, reason] : names) {
    const auto connector = MakeConnector();
    IndicationSink sink;
    const CAWIPCAddr local(dir.GetPath() + name);
    EXPECT_EQ(connector->AsyncConnect(&sink, CAWIPCAddr(dir.GetPath() + "/1_2"), 0, &local), AW_OK);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
    EXPECT_EQ(sink.got[0].reason, reason);
  }
}

TEST(IPCConnector, MisuseIsRefused) {
  const TempDir dir;
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(connector->AsyncConnect(nullptr, CAWIPCAddr("/x"), 0, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/a"), AW_OK);
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/b"), AW_ERROR_FAILURE);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(connector->SetOption(1, nullptr), AW_ERROR_FAILURE);
  bool flag = true;
  EXPECT_EQ(connector->SetOption(1, &flag), AW_ERROR_FAILURE);
  EXPECT_EQ(connector->SetOption(AW_OPT_ALLOW_ANY_USER, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(connector->SetOption(AW_OPT_ALLOW_ANY_USER, &flag), AW_OK);
}

TEST(IPCConnector, MayBeUsedAgainAlsoInsideItsIndication) {
  const TempDir dir;
  const auto connector = MakeConnector();
  IndicationSink sink;
  sink.onIndication = [&](IAWIPCTransport*) {
    if (sink.count != 0) return;
    EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  };
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 2; }));
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 3; }));
}

TEST(IPCConnector, CancelledConnectIsNeverIndicated) {
  const TempDir dir;
  HandClock clock;
  Server server(dir.GetPath() + "/1_2");
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  EXPECT_EQ(connector->CancelConnect(), AW_OK);
  EXPECT_EQ(connector->CancelConnect(), AW_OK);
  clock.Advance(kPauseBetweenTries);
  Turn();
  EXPECT_EQ(sink.count, 0);
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
}

TEST(IPCConnector, CancelAfterTheEndTouchesNothing) {
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(connector->CancelConnect(), AW_OK);
  TransportSink events;
  sink.got[0].transport->OpenWithSink(&events);
  CAWMessageBlock block("alive", 5, CAWMessageBlock::borrow);
  EXPECT_EQ(sink.got[0].transport->SendData(block, nullptr), AW_OK);
  TransportSink accepted;
  const auto other = server.Accept();
  other->OpenWithSink(&accepted);
  EXPECT_TRUE(Await([&] { return accepted.received == "alive"; }));
  EXPECT_FALSE(events.ended);
}

TEST(IPCConnector, LettingGoCancels) {
  const TempDir dir;
  HandClock clock;
  Server server(dir.GetPath() + "/1_2");
  for (const bool elsewhere : {false, true}) {
    auto connector = MakeConnector();
    auto sink = std::make_unique<IndicationSink>();
    EXPECT_EQ(Connect(*connector, *sink, dir.GetPath() + "/1_2"), AW_OK);
    if (elsewhere)
      std::thread([&] { connector = nullptr; }).join();
    else
      connector = nullptr;
    EXPECT_EQ(sink->count, 0);
    sink.reset();  // an indication would touch it
    clock.Advance(kPauseBetweenTries);
    Turn();
  }
}

TEST(IPCConnector, MayBeLetGoInsideItsIndication) {
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  for (const char* name : {"/1_2", "/nobody"}) {
    auto connector = MakeConnector();
    IndicationSink sink;
    sink.onIndication = [&](IAWIPCTransport*) { connector = nullptr; };
    EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + name), AW_OK);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  }
}

TEST(IPCConnector, TransportThatNobodyTookIsClosed) {
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  const auto connector = MakeConnector();
  IndicationSink sink;
  sink.keep = false;
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  const auto accepted = server.Accept();
  TransportSink events;
  accepted->OpenWithSink(&events);
  EXPECT_TRUE(Await([&] { return events.ended; }));
  EXPECT_EQ(events.reason, 0);
}

TEST(IPCConnector, ItsConnectionRefusesDescriptorsWhereTheSystemCan) {
  const TempDir dir;
  PlainSocket listening = PlainSocket::Stream();
  ASSERT_EQ(listening.Bind(dir.GetPath() + "/1_2"), 0);
  ASSERT_EQ(listening.Listen(), 0);
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  const PlainSocket peer = listening.Accept();
  EXPECT_NE(SendWithDescriptors(peer.Get(), "x", 1, {peer.Get()}), DescriptorsCanBeRefused());
}

TEST(IPCConnector, ArgumentsAreCopied) {
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  const auto connector = MakeConnector();
  IndicationSink sink;
  {
    auto peer = std::make_unique<CAWIPCAddr>(dir.GetPath() + "/1_2");
    auto local = std::make_unique<CAWIPCAddr>(dir.GetPath() + "/3_4");
    EXPECT_EQ(connector->AsyncConnect(&sink, *peer, 0, local.get()), AW_OK);
  }
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  CAWIPCAddr address;
  EXPECT_EQ(sink.got[0].transport->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &address), AW_OK);
  EXPECT_EQ(address.GetPath(), dir.GetPath() + "/3_4");
  EXPECT_EQ(sink.got[0].transport->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &address), AW_OK);
  EXPECT_EQ(address.GetPath(), dir.GetPath() + "/1_2");
}

TEST(IPCConnector, CallbacksOfAForeignThreadsConnectorComeOnTheNetworkThread) {
  const TempDir dir;
  std::thread::id calledOn;
  IndicationSink sink;
  sink.onIndication = [&](IAWIPCTransport*) { calledOn = std::this_thread::get_id(); };
  CAWAutoPtr<IAWIPCConnector> connector;
  std::thread([&] {
    connector = MakeConnector();
    EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  }).join();
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(calledOn, std::this_thread::get_id());
}

TEST(IPCConnector, FullListenerIsAskedAgain) {
  const TempDir dir;
  HandClock clock;
  PlainSocket listening = PlainSocket::Stream();
  ASSERT_EQ(listening.Bind(dir.GetPath() + "/1_2"), 0);
  ASSERT_EQ(::listen(listening.Get(), 0), 0);
  std::vector<PlainSocket> waiting;
  do {
    waiting.push_back(PlainSocket::Stream());
  } while (waiting.back().Connect(dir.GetPath() + "/1_2") == 0);
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  for (int i = 0; i < 3; ++i) clock.Advance(kPauseBetweenTries);
  EXPECT_EQ(sink.count, 0);
  const PlainSocket accepted = listening.Accept();
  EXPECT_GE(accepted.Get(), 0);
  clock.Advance(kPauseBetweenTries);
  ASSERT_EQ(sink.count, 1);
  EXPECT_EQ(sink.got[0].reason, 0);
}

TEST(IPCConnector, ListenerThatStaysFullIsAnError) {
  const TempDir dir;
  HandClock clock;
  PlainSocket listening = PlainSocket::Stream();
  ASSERT_EQ(listening.Bind(dir.GetPath() + "/1_2"), 0);
  ASSERT_EQ(::listen(listening.Get(), 0), 0);
  std::vector<PlainSocket> waiting;
  do {
    waiting.push_back(PlainSocket::Stream());
  } while (waiting.back().Connect(dir.GetPath() + "/1_2") == 0);
  const auto connector = MakeConnector();
  IndicationSink sink;
  EXPECT_EQ(Connect(*connector, sink, dir.GetPath() + "/1_2"), AW_OK);
  for (int i = 0; i < 200 && sink.count == 0; ++i) clock.Advance(kPauseBetweenTries);
  ASSERT_EQ(sink.count, 1);
  EXPECT_EQ(sink.got[0].reason, EAGAIN);
}

TEST(IPCConnector, LackOfDescriptorsIsAnErrorAndPasses) {
  const TempDir dir;
  Server server(dir.GetPath() + "/1_2");
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(ReasonOf(dir.GetPath() + "/1_2"), EMFILE);
  }
  EXPECT_EQ(ReasonOf(dir.GetPath() + "/1_2"), 0);
}

TEST(IPCConnector, ConnectsByAPathLongerThanASocketAddress) {
  const TempDir dir;
  const std::string deep = dir.GetPath() + "/" + std::string(200, 'd');
  std::filesystem::create_directory(deep);
  std::filesystem::permissions(deep, std::filesystem::perms::owner_all);
  Server server(deep + "/1_2");
  EXPECT_EQ(ReasonOf(deep + "/1_2"), 0);
  EXPECT_EQ(ReasonOf(deep + "/5_6"), ENOENT);
}

TEST(IPCConnector, VirtualFunctionsOfConnectorAcceptorAndSinkKeepTheirSlots) {
  EXPECT_EQ(VirtualSlot(&IAWIPCAcceptorConnectorSink::OnIPCConnectIndication), 0);
  EXPECT_EQ(VirtualSlot(&IAWIPCAcceptorConnectorId::AddReference), 0);
  EXPECT_EQ(VirtualSlot(&IAWIPCAcceptorConnectorId::ReleaseReference), 1);
}

}  // namespace
}  // namespace fipc
