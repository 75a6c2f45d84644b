// CZARNMetrics_test.cpp - snapshots of all streams. The endpoint is read by plain sockets; streams
// of the typed tests stand on scripted transports.
#include "zarn/utils/CZARNMetrics.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ChildTest.h"
#include "FakePtcp.h"
#include "FakeTcp.h"
#include "FakeTls.h"
#include "NetworkThread.h"
#include "RealIpc.h"
#include "RecordingStream.h"
#include "TaskThread.h"
#include "TempRoot.h"
#include "keelbase/CAWSingleton.h"
#include "zarn/utils/CPTCPStreamBase.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNTCPSSLTransport.h"
#include "zarn/utils/CZARNTCPTransport.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::test {
namespace {

using utils::CZARNMetrics;
using utils::CZARNStreamMetrics;
using utils::ZARNTakeMetrics;

// --- what a snapshot shows ---

template <class World>
class ZARNMetricsOfAStream : public ::testing::Test, public StreamFixture<World> {
 protected:
  // The one stream that there is.
  CZARNStreamMetrics Only() {
    const CZARNMetrics metrics = ZARNTakeMetrics();
    EXPECT_TRUE(metrics.isComplete);
    EXPECT_EQ(metrics.streams.size(), 1U);
    return metrics.streams.empty() ? CZARNStreamMetrics() : metrics.streams[0];
  }
};

TYPED_TEST_SUITE(ZARNMetricsOfAStream, StreamWorlds, WorldNames);

TYPED_TEST(ZARNMetricsOfAStream, LeaveOutAStreamThatHasDoneNothing) {
  EXPECT_TRUE(ZARNTakeMetrics().streams.empty());
}

TYPED_TEST(ZARNMetricsOfAStream, ShowAnAcceptedConnection) {
  auto transport = this->Attach();
  transport->Receive("one;two;thr");
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 2);
  this->Send("first");
  const CZARNStreamMetrics shown = this->Only();
  EXPECT_TRUE(shown.isConnected);
  EXPECT_FALSE(shown.isClient);
  EXPECT_GT(shown.number, 0U);
  EXPECT_FALSE(shown.transport.empty());
  EXPECT_EQ(shown.counters.messagesReceived, 2U);
  EXPECT_EQ(shown.counters.bytesReceived, 11U);
  EXPECT_EQ(shown.counters.messagesSent, 1U);
  EXPECT_EQ(shown.counters.bytesSent, 5U);
  EXPECT_EQ(shown.counters.connects, 1U);
  EXPECT_EQ(shown.sendQueueLength, 3U);
  EXPECT_EQ(shown.counters.sendQueueHighMark, 3U);
}

TYPED_TEST(ZARNMetricsOfAStream, ShowFailedAttemptsAndWhereTheyWent) {
  this->Connect();
  const CZARNStreamMetrics connecting = this->Only();
  EXPECT_TRUE(connecting.isClient);
  EXPECT_FALSE(connecting.isConnected);
  EXPECT_FALSE(connecting.peer.empty());
  EXPECT_TRUE(connecting.local.empty());
  this->manager.Last().Complete(ECONNREFUSED, nullptr);
  const CZARNStreamMetrics failed = this->Only();
  EXPECT_EQ(failed.number, connecting.number);
  EXPECT_EQ(failed.peer, connecting.peer);
  EXPECT_EQ(failed.counters.connectFailures, 1U);
  EXPECT_EQ(failed.counters.connects, 0U);
  EXPECT_EQ(failed.counters.lastDisconnectReason, ECONNREFUSED);
}

TYPED_TEST(ZARNMetricsOfAStream, ShowALostConnectionUntilTheStreamIsDestroyed) {
  this->ConnectFully()->End(ECONNRESET);
  const CZARNStreamMetrics lost = this->Only();
  EXPECT_FALSE(lost.isConnected);
  EXPECT_EQ(lost.counters.lastDisconnectReason, ECONNRESET);
  this->stream.reset();
  EXPECT_TRUE(ZARNTakeMetrics().streams.empty());
}

TYPED_TEST(ZARNMetricsOfAStream, CanBeTakenInsideAHandler) {
  auto transport = this->Attach();
  std::uint64_t received = 0;
  this->stream->onMessage = [&](const char*, std::size_t len) {
    received = this->Only().counters.bytesReceived;
    return len;
  };
  transport->Receive("bytes");
  EXPECT_EQ(received, 5U);
}

// --- streams that never connect by themselves ---

template <class Stream>
struct BlockStream : Stream {
  std::uint16_t HandleMessage(CAWMessageBlock& data) override {
    return static_cast<std::uint16_t>(data.GetChainedLength());
  }
  void OnPeerDisconnect(long) override {}
};

template <class Stream, class Handle>
void ExpectShown(const char* kind, AWResult (Stream::*attach)(Handle&), Handle& transport) {
  BlockStream<Stream> stream;
  ASSERT_EQ((stream.*attach)(transport), AW_OK);
  const CZARNMetrics metrics = ZARNTakeMetrics();
  ASSERT_EQ(metrics.streams.size(), 1U);
  EXPECT_EQ(metrics.streams[0].transport, kind);
  EXPECT_FALSE(metrics.streams[0].isClient);
  EXPECT_EQ(metrics.streams[0].counters.connects, 1U);
}

TEST(ZARNTakeMetrics, ShowsStreamsThatAreOnlyHandedTheirConnections) {
  CallLog log;
  CAWAutoPtr<wface::IAWTransport> tcp(new FakeTcpTransport(&log));
  ExpectShown("tcp", &utils::CZARNTCPTransport::SetTransportHandle, tcp);
  CAWAutoPtr<sslutils::IAWSSLTransport> tls(new FakeTlsTransport(&log));
  ExpectShown("tls", &utils::CZARNTCPSSLTransport::SetSSLTransportHandle, tls);
  CAWAutoPtr<ptcp::IAWPseudoTCPTransport> ptcp(new FakePtcpTransport(&log));
  ExpectShown("ptcp", &utils::CPTCPStreamBase::SetTransportHandle, ptcp);
}

// --- several threads ---

constexpr std::uint32_t kPatienceMs = 20000;

struct QuietChannel : utils::CZARNLibClientChannel {
  void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {}
};

// A channel of the task thread that looks for somebody who is not there.
class TaskChannel {
 public:
  TaskChannel() {
    TaskThread()->Call([this] {
      channel_ = std::make_unique<QuietChannel>();
      EXPECT_EQ(channel_->Init(3, 4, 1, 2), AW_OK);
    });
  }
  ~TaskChannel() {
    TaskThread()->Call([this] { channel_.reset(); });
  }

 private:
  std::unique_ptr<QuietChannel> channel_;
};

TEST(ZARNTakeMetrics, AsksTheOtherThreads) {
  const TempRoot root;
  const TaskChannel there;
  QuietChannel here;
  ASSERT_EQ(here.Init(5, 6, 7, 8), AW_OK);
  const CZARNMetrics metrics = ZARNTakeMetrics(kPatienceMs);
  EXPECT_TRUE(metrics.isComplete);
  ASSERT_EQ(metrics.streams.size(), 2U);
  EXPECT_EQ(metrics.streams[0].peer, "1_2");
  EXPECT_EQ(metrics.streams[1].peer, "7_8");
  EXPECT_LT(metrics.streams[0].number, metrics.streams[1].number);
}

TEST(ZARNTakeMetrics, GivesUpOnAThreadThatDoesNotAnswer) {
  const TempRoot root;
  const TaskChannel there;
  QuietChannel here;
  ASSERT_EQ(here.Init(5, 6, 7, 8), AW_OK);
  std::promise<void> goOn;
  TaskThread()->Post([held = goOn.get_future().share()] { held.wait(); });
  const CZARNMetrics metrics = ZARNTakeMetrics(10);
  goOn.set_value();
  EXPECT_FALSE(metrics.isComplete);
  ASSERT_EQ(metrics.streams.size(), 1U);
  EXPECT_EQ(metrics.streams[0].peer, "7_8");
}

TEST(ZARNTakeMetrics, CanBeTakenOnAThreadThatIsNotThePlatforms) {
  const TempRoot root;
  const TaskChannel there;
  CZARNMetrics metrics;
  std::thread([&] { metrics = ZARNTakeMetrics(kPatienceMs); }).join();
  EXPECT_TRUE(metrics.isComplete);
  EXPECT_EQ(metrics.streams.size(), 1U);
}

TEST(ZARNTakeMetrics, ReadsNothingOfAStreamOfAnotherKindOfThread) {
  std::thread([] {
    StreamFixture<OverTcp> own;
    own.Attach();
    EXPECT_TRUE(ZARNTakeMetrics().streams.empty());
  }).join();
}

// For the thread sanitizer: streams come, work and go on their threads while others look.
TEST(ZARNTakeMetrics, IsSafeWhileStreamsComeAndGo) {
  const TempRoot root;
  std::atomic<bool> done = false;
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i)
    readers.emplace_back([&] {
      while (!done) ZARNTakeMetrics(50);
    });
  for (int i = 0; i < 100; ++i) {
    const TaskChannel there;
    StreamFixture<OverTcp> here;
    auto transport = here.Attach();
    transport->Receive("a;b;c");
    here.Send("bytes");
    RunReady();
    EXPECT_GE(ZARNTakeMetrics().streams.size(), 1U);
    transport->End(0);
    std::thread([gone = std::move(here.stream)]() mutable { gone.reset(); }).join();
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  RunReady();  // what they asked of us and do not wait for any more
}

// --- the endpoint ---

class ZARNEnableMetrics : public ::testing::Test {
 protected:
  ~ZARNEnableMetrics() override { utils::ZARNDisableMetrics(); }

  std::string GetPath() const {
    return root_.GetPath() + "/system/zarn/stat/" + std::to_string(::getpid());
  }
  // All that one who connects is sent; the loop turns meanwhile.
  std::string Ask() {
    PlainSocket socket = PlainSocket::Stream();
    EXPECT_EQ(socket.Connect(GetPath()), 0);
    std::string all;
    EXPECT_TRUE(Await([&] {
      all += socket.Receive();
      return socket.ended;
    }));
    return all;
  }
  // The process's object, with those of the streams as its "shown".
  static Json::Value Parse(const std::string& text) {
    Json::Value all;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      Json::Value value;
      std::string errors;
      const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
      EXPECT_TRUE(reader->parse(line.data(), line.data() + line.size(), &value, &errors))
          << errors << line;
      if (all.isNull()) {
        all = value;
      } else {
        all["shown"].append(value);
      }
    }
    return all;
  }

  TempRoot root_;
};

TEST_F(ZARNEnableMetrics, SendsASnapshotAndTheEnd) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  const TaskChannel there;
  const std::string text = Ask();
  EXPECT_EQ(text.back(), '\n');
  const Json::Value answer = Parse(text);
  EXPECT_EQ(answer["format"], 1);
  EXPECT_EQ(answer["pid"], ::getpid());
  EXPECT_EQ(answer["complete"], true);
  EXPECT_EQ(answer["omitted"], 0);
  EXPECT_EQ(answer["streams"], 1);
  ASSERT_EQ(answer["shown"].size(), 1U);
  const Json::Value& stream = answer["shown"][0];
  EXPECT_EQ(stream["transport"], "ipc");
  EXPECT_EQ(stream["role"], "client");
  EXPECT_EQ(stream["peer"], "1_2");
  EXPECT_EQ(stream["connected"], false);
  EXPECT_EQ(stream["messages_sent"], 0);
  EXPECT_EQ(stream["connection_partial_sends"], 0);
}

TEST_F(ZARNEnableMetrics, ShowsWhatAConnectionHasDone) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  Server server(root_.GetPath() + "/1_2");
  PlainSocket client = PlainSocket::Stream();
  auto accepted = server.AcceptFrom(client);
  server.sink.got.clear();
  RecordingStream stream;
  ASSERT_EQ(stream.SetTransportHandle(accepted), AW_OK);
  accepted = nullptr;
  client.Send("one;two;");
  ASSERT_TRUE(Await([&] { return stream.frames.size() == 2; }));
  ASSERT_EQ(stream.SendMsg("answer", 6), AW_OK);
  ASSERT_TRUE(Await([&] { return client.Receive() == "answer"; }));
  const Json::Value shown = Parse(Ask())["shown"][0];
  EXPECT_EQ(shown["role"], "accepted");
  EXPECT_EQ(shown["connected"], true);
  EXPECT_EQ(shown["local"], "1_2");
  EXPECT_EQ(shown["messages_received"], 2);
  EXPECT_EQ(shown["bytes_sent"], 6);
  EXPECT_EQ(shown["connection_bytes_sent"], 6);
  EXPECT_EQ(shown["connection_bytes_received"], 8);
  EXPECT_EQ(shown["connection_writes"], 1);
}

TEST_F(ZARNEnableMetrics, IsForOurOwnUserOnlyAndGoesAway) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  EXPECT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  struct stat status {};
  ASSERT_EQ(::lstat(GetPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFSOCK | S_IRUSR | S_IWUSR);
  EXPECT_EQ(utils::ZARNDisableMetrics(), AW_OK);
  EXPECT_FALSE(std::filesystem::exists(GetPath()));
  EXPECT_EQ(utils::ZARNDisableMetrics(), AW_OK);
  EXPECT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  EXPECT_FALSE(Ask().empty());
}

TEST_F(ZARNEnableMetrics, ReplacesWhatAKilledProcessOfThatNumberLeft) {
  std::filesystem::create_directories(std::filesystem::path(GetPath()).parent_path());
  PlainSocket left = PlainSocket::Stream();
  ASSERT_EQ(left.Bind(GetPath()), 0);
  left.Close();
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  EXPECT_FALSE(Ask().empty());
}

TEST_F(ZARNEnableMetrics, SaysWhyItCannot) {
  std::filesystem::create_directories(GetPath());
  EXPECT_EQ(utils::ZARNEnableMetrics(), EADDRINUSE);
  const ScopedEnv noRoot("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(utils::ZARNEnableMetrics(), AW_ERROR_FAILURE);
}

TEST_F(ZARNEnableMetrics, WhatAPeerCallsItselfDoesNotBreakTheText) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  StreamFixture<OverIpc> world;
  auto transport = world.NewTransport();
  transport->peer = CAWIPCAddr("/x/\"\\\n\x01\xff\xc3");
  StreamFixture<OverIpc>::Handle handle(transport.Get());
  world.stream->SetTransportHandle(handle);
  const std::string text = Ask();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  for (const char c : text) EXPECT_TRUE((c >= 0x20 && c < 0x7f) || c == '\n') << +c;
  EXPECT_EQ(Parse(text)["shown"][0]["peer"].asString().substr(0, 4), "\"\\\n\x01");
}

TEST_F(ZARNEnableMetrics, TurnsAwayWhoeverComesTooOften) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  std::vector<PlainSocket> sockets;
  for (int i = 0; i < 20; ++i) {
    sockets.push_back(PlainSocket::Stream());
    ASSERT_EQ(sockets.back().Connect(GetPath()), 0);
  }
  int answered = 0;
  for (PlainSocket& socket : sockets) {
    std::string all;
    ASSERT_TRUE(Await([&] {
      all += socket.Receive();
      return socket.ended;
    }));
    if (!all.empty()) ++answered;
  }
  EXPECT_EQ(answered, 16);
}

TEST_F(ZARNEnableMetrics, AThreadThatHangsDelaysTheAnswerOnly) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  const TaskChannel there;
  std::promise<void> goOn;
  TaskThread()->Post([held = goOn.get_future().share()] { held.wait(); });
  const Json::Value answer = Parse(Ask());
  goOn.set_value();
  EXPECT_EQ(answer["complete"], false);
  EXPECT_EQ(answer["streams"], 0);
}

TEST_F(ZARNEnableMetrics, AReaderThatDoesNotReadIsLeftAfterASecond) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  StreamFixture<OverTcp> world;
  std::vector<std::unique_ptr<RecordingTcpSession>> many;
  for (int i = 0; i < 4200; ++i) {
    many.push_back(std::make_unique<RecordingTcpSession>());
    StreamFixture<OverTcp>::Handle handle(world.NewTransport().Get());
    many.back()->SetTransportHandle(handle);
  }
  PlainSocket idle = PlainSocket::Stream();
  ASSERT_EQ(idle.Connect(GetPath()), 0);
  const Json::Value answer = Parse(Ask());
  EXPECT_EQ(answer["streams"], 4096);
  EXPECT_EQ(answer["shown"].size(), 4096U);
  EXPECT_EQ(answer["omitted"], 104);
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  ASSERT_TRUE(Await([&] { return std::chrono::steady_clock::now() > end; }));
  std::string got;
  while (!idle.ended) got += idle.Receive();
  EXPECT_FALSE(got.empty());
  EXPECT_NE(got.back(), '\n');  // the rest was dropped
}

TEST_F(ZARNEnableMetrics, OneWhoHasLeftAgainHarmsNobody) {
  ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);
  for (int i = 0; i < 8; ++i) {
    PlainSocket socket = PlainSocket::Stream();
    ASSERT_EQ(socket.Connect(GetPath()), 0);
    socket.Send("who reads this?");
  }
  EXPECT_FALSE(Ask().empty());
}

// --- a thread that has stopped ---

TEST(ZARNMetricsOfAStoppedThread, CannotBeEnabledFromElsewhereUntilItRunsAgain) {
  if (ChildTest::Role() == "stopped") {
    auto* network =
        keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
    network->Stop();
    network->Run();
    bool good = false;
    std::thread([&good] {
      const AWResult enabled = utils::ZARNEnableMetrics();
      good = enabled == AW_ERROR_FAILURE && utils::ZARNDisableMetrics() == AW_OK;
    }).join();
    std::thread other([network] {
      while (utils::ZARNEnableMetrics() != AW_OK) std::this_thread::yield();
      network->Stop();
    });
    network->Run();
    other.join();
    std::thread([&good] { good = utils::ZARNDisableMetrics() == AW_OK && good; }).join();
    std::exit(good ? 0 : 1);
  }
  const TempRoot root;
  ChildTest child("stopped");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
  EXPECT_TRUE(std::filesystem::is_empty(root.GetPath() + "/system/zarn/stat"));
}

// --- the end of the process ---

// In a process whose network thread the platform has started.
TEST(ZARNMetricsAtExit, RemovesItsFileAndStreamsMayOutliveEverything) {
  if (ChildTest::Role() == "exit") {
    static std::unique_ptr<QuietChannel> outlives;
    auto* network =
        keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_TASK);
    network->Call([&] {
      outlives = std::make_unique<QuietChannel>();
      outlives->Init(3, 4, 1, 2);
    });
    const bool good = utils::ZARNEnableMetrics() == AW_OK && ZARNTakeMetrics().isComplete;
    std::exit(good ? 0 : 1);
  }
  const TempRoot root;
  ChildTest child("exit");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
  EXPECT_TRUE(std::filesystem::is_empty(root.GetPath() + "/system/zarn/stat"));
}

// A link of the clean-up chain: ends after what was made later.
struct LateJoin final : keelbase::CAWCleanUpBase {
  ~LateJoin() override {
    for (std::thread& thread : threads) thread.join();
  }
  std::vector<std::thread> threads;
};

// They wait for the network thread, which is the one that ends the process.
TEST(ZARNMetricsAtExit, ThreadsThatAreDisablingThemComeBack) {
  if (ChildTest::Role() == "disable") {
    ::alarm(20);
    auto* others = new LateJoin;
    if (utils::ZARNEnableMetrics() != AW_OK) std::exit(1);
    static std::atomic<int> disabling{0};
    constexpr int kThreads = 8;
    for (int i = 0; i < kThreads; ++i)
      others->threads.emplace_back([] {
        ++disabling;
        utils::ZARNDisableMetrics();
      });
    while (disabling < kThreads) std::this_thread::yield();
    std::exit(0);
  }
  const TempRoot root;
  for (int i = 0; i < 5; ++i) {
    ChildTest child("disable");
    ASSERT_EQ(child.Wait(), 0) << child.GetErrors();
    EXPECT_TRUE(std::filesystem::is_empty(root.GetPath() + "/system/zarn/stat"));
  }
}

}  // namespace
}  // namespace zarn::test
