// CRestfulClient_test.cpp - the client over a scripted HTTP library; the test's thread is the
// network thread, and the main thread is one of its own.
#include "zarn/utils/CRestfulClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "ChildTest.h"
#include "FakeHttp.h"
#include "MainThread.h"
#include "NetworkThread.h"
#include "TraceLines.h"
#include "VirtualSlot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::CAWString;
using utils::CRestfulClient;
using utils::CRestfulRcvEvent;

constexpr const char* kUrl = "http://127.0.0.1/zarn/tcpchannel";

using Answers = std::vector<std::pair<std::string, long>>;

class RestfulClient : public ::testing::Test {
 protected:
  ~RestfulClient() override { GetAnswers(); }  // callbacks refer to this object

  void Start(const std::string& url = kUrl, const std::string& body = "{}") {
    client->StartClient(url, "PUT", body, [this](const CAWString& text, long result) {
      EXPECT_TRUE(main->IsCurrent());
      answers.emplace_back(text, result);
    });
  }
  void Connect(long reason = 0) { http.Last().Connect(reason, channel.Get()); }

  // Once everything that was posted to the main thread has been carried out.
  const Answers& GetAnswers() {
    main->Call([] {});
    return answers;
  }

  keelbase::CAWThread* main = kMainThread->Start();
  CallLog log;
  FakeHttpManager http{&log};
  CAWAutoPtr<FakeHttpChannel> channel{new FakeHttpChannel(&log)};
  std::unique_ptr<CRestfulClient> client = std::make_unique<CRestfulClient>();
  Answers answers;  // of the main thread
};

// --- urls ---

TEST_F(RestfulClient, UrlWithoutTheMarkMakesNoClientSendsNothingAndIsTraced) {
  const zarn::test::TraceLines trace;
  for (const char* url : {"", "http://127.0.0.1/", "http://127.0.0.1/zarn/tcpchanne",
                          "http://127.0.0.1/Zarn/tcpchannel", "zarn/tcpchannel"})
    Start(url);
  ASSERT_EQ(trace.Get().size(), 5U);
  EXPECT_EQ(trace.Get()[0].text,
            "an HTTP request is not sent, and no callback comes: its url has no /zarn/tcpchannel");
  EXPECT_TRUE(http.clients.empty());
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(GetAnswers().empty());
}

TEST_F(RestfulClient, MarkMayStandAnywhereInTheUrl) {
  for (const std::string url : {"/zarn/tcpchannel", "http://a/zarn/tcpchannel?x",
                                "x/zarn/tcpchannelx", "http://a/zarn/tcpchannel/zarn/tcpchannel"}) {
    Start(url);
    EXPECT_EQ(http.Last().urls, CallLog{url});
  }
  EXPECT_EQ(http.clients.size(), 4U);
}

TEST_F(RestfulClient, UrlWithoutTheMarkUsesTheClientOfTheCallBefore) {
  Start();
  Start("http://127.0.0.1/other");
  EXPECT_EQ(http.clients.size(), 1U);
  EXPECT_EQ(http.Last().urls, (CallLog{kUrl, "http://127.0.0.1/other"}));
}

TEST_F(RestfulClient, UrlWithTheMarkReplacesTheClientOfTheCallBefore) {
  Start();
  Start();
  ASSERT_EQ(http.clients.size(), 2U);
  EXPECT_EQ(http.clients[0]->GetReferences(), 1U);  // let go of: that drops its request
  EXPECT_EQ(http.clients[1]->GetReferences(), 2U);
}

TEST_F(RestfulClient, ClientThatCannotBeMadeIsTracedAndDoesNothing) {
  const zarn::test::TraceLines trace;
  http.fails = true;
  Start();
  EXPECT_TRUE(log.empty());
  ASSERT_EQ(trace.Get().size(), 1U);
  EXPECT_EQ(trace.Get()[0].text,
            "an HTTP request is not sent, and no callback comes: no memory or network thread");
}

TEST_F(RestfulClient, ClientThatCannotBeOpenedIsToldAsNoMemoryAndCanBeUsedAgain) {
  http.openResult = AW_ERROR_FAILURE;
  Start();
  EXPECT_EQ(GetAnswers(), (Answers{{"", -ENOMEM}}));
  http.openResult = AW_OK;
  Start();
  Connect();
  channel->Receive("hello");
  EXPECT_EQ(GetAnswers(), (Answers{{"", -ENOMEM}, {"hello", 200}}));
}

TEST_F(RestfulClient, ClientIsOpenedWithTheUrlThisSinkAndZero) {
  Start();
  EXPECT_EQ(log, CallLog{std::string("open ") + kUrl});
  EXPECT_EQ(http.Last().reserved, 0U);
}

// --- the info pair ---

TEST_F(RestfulClient, InfoPairIsHandedOverOnlyWhenBothAreThere) {
  Start();
  client->SetRestfulInfo("user", "");
  Start();
  client->SetRestfulInfo("", "word");
  Start();
  for (const auto& one : http.clients) EXPECT_TRUE(one->infos.empty());
  client->SetRestfulInfo("user", "word");
  Start();
  EXPECT_EQ(http.Last().infos,
            (std::vector<std::pair<std::string, std::string>>{{"user", "word"}}));
  EXPECT_EQ(log[log.size() - 2], "info");  // before the open
  Start("http://127.0.0.1/other");
  EXPECT_EQ(http.Last().infos.size(), 2U);
}

// --- connect and send ---

TEST_F(RestfulClient, OnConnectOpensTheChannelAppliesTheSettingAndSendsTheBody) {
  Start();
  log.clear();
  Connect();
  EXPECT_EQ(log, (CallLog{"open", "set PUT", "send"}));
  EXPECT_EQ(channel->sent, "{}");
  ASSERT_EQ(channel->parameters.size(), 1U);
  EXPECT_EQ(channel->parameters[0].reserved64, 0U);
  EXPECT_EQ(channel->parameters[0].reserved32, 0U);
  EXPECT_EQ(channel->GetReferences(), 2U);
}

TEST_F(RestfulClient, ReasonOfAConnectIsNotExamined) {
  Start();
  log.clear();
  Connect(ECONNREFUSED);
  EXPECT_EQ(log, (CallLog{"open", "set PUT", "send"}));
}

TEST_F(RestfulClient, SameChannelTwiceIsHeldOnce) {
  Start();
  Connect();
  Connect();
  EXPECT_EQ(channel->GetReferences(), 2U);
}

TEST_F(RestfulClient, AnotherChannelTakesTheOldOnesPlace) {
  Start();
  Connect();
  const CAWAutoPtr<FakeHttpChannel> other(new FakeHttpChannel);
  http.Last().Connect(0, other.Get());
  EXPECT_EQ(channel->GetReferences(), 1U);
  EXPECT_EQ(other->GetReferences(), 2U);
}

TEST_F(RestfulClient, BodyMayBeEmptyOrHaveAnyBytes) {
  Start(kUrl, "");
  Connect();
  EXPECT_EQ(channel->sent, "");
  const std::string bytes("a\0b\xff", 4);
  Start(kUrl, bytes);
  Connect();
  EXPECT_EQ(channel->sent, bytes);
}

TEST_F(RestfulClient, SendDataAppliesTheSettingEachTimeCopiesNothingAndGivesTheResult) {
  EXPECT_EQ(client->SendData("x", 1), AW_ERROR_NOT_INITIALIZED);
  Start();
  Connect();
  log.clear();
  channel->sendResult = 4711;
  const char* more = "more";
  EXPECT_EQ(client->SendData(more, 4), 4711U);
  EXPECT_EQ(log, (CallLog{"set PUT", "send"}));
  EXPECT_EQ(channel->sentFrom, more);
}

// --- the answer ---

TEST_F(RestfulClient, OneAnswerYieldsOneCallbackAndReleasesTheChannel) {
  Start();
  Connect();
  log.clear();
  channel->result = 201;
  channel->Receive("hello");
  EXPECT_EQ(log, (CallLog{"result", "disconnect 0"}));
  EXPECT_EQ(channel->GetReferences(), 1U);
  EXPECT_EQ(GetAnswers(), (Answers{{"hello", 201}}));
  EXPECT_EQ(client->SendData("x", 1), AW_ERROR_NOT_INITIALIZED);
  client = nullptr;
  EXPECT_EQ(log, (CallLog{"result", "disconnect 0"}));
}

TEST_F(RestfulClient, WholeChainIsTheAnswer) {
  Start();
  Connect();
  auto* chain = new CAWMessageBlock(16);
  chain->Write("hel", 3);
  for (const char* piece : {"lo, ", "", "world"}) {
    auto* block = new CAWMessageBlock(16);
    block->Write(piece, std::char_traits<char>::length(piece));
    chain->Append(block);
  }
  channel->Receive(*chain);
  chain->DestroyChained();
  EXPECT_EQ(GetAnswers(), (Answers{{"hello, world", 200}}));
}

TEST_F(RestfulClient, FailureReachesTheCallbackToo) {
  Start();
  channel->result = -ECONNREFUSED;
  Connect(ECONNREFUSED);
  channel->Receive("");
  EXPECT_EQ(GetAnswers(), (Answers{{"", -ECONNREFUSED}}));
}

TEST_F(RestfulClient, RequestWithoutCallbackIsFine) {
  client->StartClient(kUrl, "", "", nullptr);
  Connect();
  channel->Receive("hello");
  EXPECT_TRUE(GetAnswers().empty());
}

TEST_F(RestfulClient, DisconnectReleasesTheChannel) {
  Start();
  Connect();
  log.clear();
  channel->End(ECONNRESET);
  EXPECT_EQ(log, CallLog{"disconnect 0"});
  EXPECT_EQ(channel->GetReferences(), 1U);
  client->OnDisconnect(0, nullptr);
  client->OnSend(nullptr, nullptr);
  EXPECT_EQ(log, CallLog{"disconnect 0"});
  EXPECT_TRUE(GetAnswers().empty());
}

TEST_F(RestfulClient, OldCallbackIsDestroyedWhenANewOneComes) {
  auto first = std::make_shared<int>();
  client->StartClient(kUrl, "", "", [first](const CAWString&, long) {});
  EXPECT_EQ(first.use_count(), 2);
  client->StartClient(kUrl, "", "", nullptr);
  EXPECT_EQ(first.use_count(), 1);
}

TEST_F(RestfulClient, SecondRequestGetsItsOwnAnswer) {
  Start();
  Connect();
  channel->Receive("one");
  Start();
  Connect();
  channel->Receive("two");
  EXPECT_EQ(GetAnswers(), (Answers{{"one", 200}, {"two", 200}}));
}

// --- threads and lifetime ---

TEST_F(RestfulClient, FirstStartWaitsForNobody) {
  std::thread([&] { Start(); }).join();
  EXPECT_EQ(log, CallLog{std::string("open ") + kUrl});
}

TEST_F(RestfulClient, StartAfterAnAnswerWaitsForNobody) {
  Start();
  Connect();
  channel->Receive("one");
  std::thread([&] { Start(); }).join();
  EXPECT_EQ(http.clients.size(), 2U);
}

TEST_F(RestfulClient, StartThatDropsARequestIsCarriedOutOnTheNetworkThread) {
  Start();
  std::atomic<bool> started{false};
  std::thread other([&] {
    Start();
    started = true;
  });
  while (!started) RunReady();
  other.join();
  ASSERT_EQ(http.madeOn.size(), 2U);
  EXPECT_EQ(http.madeOn[1], std::this_thread::get_id());
}

TEST_F(RestfulClient, DestructionReleasesChannelClientAndCallback) {
  auto kept = std::make_shared<int>();
  client->StartClient(kUrl, "", "", [kept](const CAWString&, long) {});
  Connect();
  log.clear();
  client = nullptr;
  EXPECT_EQ(log, CallLog{"disconnect 0"});
  EXPECT_EQ(channel->GetReferences(), 1U);
  EXPECT_EQ(http.Last().GetReferences(), 1U);
  EXPECT_EQ(kept.use_count(), 1);
}

TEST_F(RestfulClient, ClientMayBeDestroyedInsideItsCallback) {
  std::atomic<int> calls{0};
  client->StartClient(kUrl, "", "", [&](const CAWString& text, long) {
    client = nullptr;
    EXPECT_EQ(text, "hello");
    ++calls;
  });
  Connect();
  channel->Receive("hello");
  main->Call([] {});
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(client, nullptr);
}

TEST_F(RestfulClient, CallbackOutlivesTheClientOnceTheAnswerIsThere) {
  Start();
  Connect();
  main->Call([&] {  // which is busy while the answer comes
    channel->Receive("hello");
    client = nullptr;
  });
  EXPECT_EQ(GetAnswers(), (Answers{{"hello", 200}}));
}

TEST(RestfulClientAlone, AnswerThatNobodyListensForIsDroppedAndSaidOnce) {
  if (ChildTest::Role() == "alone") {
    const TraceLines traces;
    FakeHttpManager http;
    const CAWAutoPtr<FakeHttpChannel> channel(new FakeHttpChannel);
    CRestfulClient client;
    bool called = false;
    for (int i = 0; i < 3; ++i) {
      client.StartClient(kUrl, "", "", [&](const CAWString&, long) { called = true; });
      http.Last().Connect(0, channel.Get());
      channel->Receive("hello");
    }
    const auto lines = traces.Get();
    const bool good = !called && channel->GetReferences() == 1 && lines.size() == 1 &&
                      lines[0].text.find("TT_MAIN") != std::string::npos;
    std::exit(good ? 0 : 1);
  }
  ChildTest child("alone");
  EXPECT_EQ(child.Wait(), 0);
}

// --- the event ---

TEST(RestfulEvent, CallsItsCallbackWithACopyOfTheAnswer) {
  Answers answers;
  CAWString text = "hello";
  auto* event = new CRestfulRcvEvent(
      text, 7, [&](const CAWString& answer, long result) { answers.emplace_back(answer, result); });
  text = "changed";
  EXPECT_EQ(event->OnEventFire(), AW_OK);
  event->OnDestorySelf();
  EXPECT_EQ(answers, (Answers{{"hello", 7}}));
}

TEST(RestfulEvent, WithoutCallbackDoesNothing) {
  auto* event = new CRestfulRcvEvent("hello", 7, nullptr);
  EXPECT_EQ(event->OnEventFire(), AW_OK);
  event->OnDestorySelf();
}

// --- interface ---

TEST(RestfulSlots, StandInTheirOrder) {
  EXPECT_EQ(VirtualSlot(&CRestfulClient::OnConnect), 0);
  EXPECT_EQ(VirtualSlot(&CRestfulClient::OnReceive), 3);  // behind the destructor pair
  EXPECT_EQ(VirtualSlot(&CRestfulClient::OnSend), 4);
  EXPECT_EQ(VirtualSlot(&CRestfulClient::OnDisconnect), 5);
  EXPECT_EQ(VirtualSlot(&CRestfulRcvEvent::OnEventFire), 0);
  EXPECT_TRUE((std::is_base_of_v<keelbase::IAWEvent, CRestfulRcvEvent>));
}

TEST(RestfulSlots, ChannelSinkIsTheFirstBase) {
  CRestfulClient client;
  EXPECT_EQ(static_cast<void*>(static_cast<shttp::IAWChannelSink*>(&client)),
            static_cast<void*>(&client));
  EXPECT_NE(static_cast<void*>(static_cast<wface::IAWTransportSink*>(&client)),
            static_cast<void*>(&client));
}

}  // namespace
}  // namespace zarn::test
