// HttpEndings_test.cpp - requests that are dropped early: no callback comes.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HttpUser.h"
#include "LoopThread.h"

namespace zarn::test {
namespace {

TEST_F(HttpClient, SecondOpenDropsTheFirstWhereverItIs) {
  User second;
  const std::vector<std::function<void()>> steps = {
      [] {},
      [] { RunReady(); },
      [this] { tcp.Last().Complete(0, transport.Get()); },
      [this] { transport->Receive("HTTP/1.1 200 OK\r\n"); },
  };
  for (std::size_t count = 1; count <= steps.size(); ++count) {
    SCOPED_TRACE(count);
    user = User();
    second = User();
    transport = new FakeTcpTransport;
    ASSERT_EQ(client->Open("http://127.0.0.1:1/", &user, 0), AW_OK);
    for (std::size_t i = 0; i < count; ++i) steps[i]();
    const Calls before = user.calls;
    ASSERT_EQ(client->Open("http://127.0.0.1:2/", &second, 0), AW_OK);
    RunReady();
    EXPECT_EQ(tcp.Last().peer.GetPort(), 2);
    EXPECT_EQ(transport->disconnects.size(), count > 2 ? 1U : 0U);
    transport->Receive("\r\nhello");
    transport->End(0);
    clock.Advance(std::chrono::seconds(9));
    EXPECT_EQ(user.calls, before);

    const CAWAutoPtr<FakeTcpTransport> other(new FakeTcpTransport);
    tcp.Last().Complete(0, other.Get());
    other->Receive(std::string(kAnswer));
    EXPECT_EQ(second.calls, kAnswered);
    EXPECT_EQ(second.answer, "hello");
  }
}

TEST_F(HttpClient, LettingGoOfTheClientEndsTheRequest) {
  Send();
  client = nullptr;
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  transport->Receive(std::string(kAnswer));
  clock.Advance(std::chrono::hours(1));
  EXPECT_EQ(user.calls, Calls{"connect 0"});
}

TEST_F(HttpClient, LettingGoOfTheClientEndsTheConnect) {
  Open();
  client = nullptr;
  EXPECT_EQ(tcp.Last().GetReferences(), 1U);
  clock.Advance(std::chrono::hours(1));
  EXPECT_TRUE(user.calls.empty());
}

TEST_F(HttpClient, LettingGoOfTheChannelEndsTheRequest) {
  Send();
  user.channel = nullptr;
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
  clock.Advance(std::chrono::hours(1));
  EXPECT_EQ(user.calls, Calls{"connect 0"});
}

TEST_F(HttpClient, DisconnectEndsTheRequestAlsoBeforeAFailureIsTold) {
  user.setting = "Host: x";
  Open();
  tcp.Last().Complete(0, transport.Get());
  EXPECT_EQ(user.channel->Disconnect(0), AW_OK);
  EXPECT_EQ(user.channel->Disconnect(0), AW_OK);
  clock.Advance(std::chrono::hours(1));
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  EXPECT_EQ(user.Send("x"), AW_ERROR_NOT_INITIALIZED);
  EXPECT_EQ(user.channel->OpenWithSink(&user), AW_ERROR_FAILURE);
}

TEST_F(HttpClient, EverythingMayBeLetGoInsideOnReceive) {
  auto dying = std::make_unique<User>();
  dying->onReceive = [&] {
    client = nullptr;
    dying->channel->Disconnect(0);
    dying = nullptr;  // and with it the channel
  };
  ASSERT_EQ(client->Open("http://127.0.0.1/", dying.get(), 0), AW_OK);
  RunReady();
  tcp.Last().Complete(0, transport.Get());
  transport->Receive(std::string(kAnswer));
  EXPECT_EQ(dying, nullptr);
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TEST_F(HttpClient, ChannelThatIsLetGoInsideOnReceiveTellsNoMore) {
  user.onReceive = [this] { user.channel = nullptr; };
  Send();
  Answer(kAnswer);
  EXPECT_EQ(user.calls, (Calls{"connect 0", "receive"}));
}

TEST_F(HttpClient, ChannelThatAThreadWithALoopLetsGoDuringOnReceiveTellsNoMore) {
  user.onReceive = [this] { WithLoop([this](auto&) { user.channel = nullptr; }); };
  Send();
  Answer(kAnswer);
  EXPECT_EQ(user.calls, (Calls{"connect 0", "receive"}));
}

TEST_F(HttpClient, EverythingMayBeLetGoInsideOnConnect) {
  user.onConnect = [this](IAWChannelHttpClient*) { client = nullptr; };
  Send();
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  EXPECT_EQ(transport->GetReferences(), 1U);
}

TEST_F(HttpClient, NextRequestMayBeginInsideOnReceive) {
  user.onReceive = [this] {
    user.onReceive = nullptr;
    EXPECT_EQ(client->Open("http://127.0.0.1:9/", &user, 0), AW_OK);
  };
  Send();
  Answer(kAnswer);
  tcp.Last().Complete(0, transport.Get());
  EXPECT_EQ(user.calls, (Calls{"connect 0", "receive", "connect 0"}));
}

TEST_F(HttpClient, DisconnectAndLettingGoAreAllowedOnAnyThread) {
  Send();
  std::thread([&] {
    user.channel->Disconnect(0);
    client = nullptr;
  }).join();
  transport->Receive(std::string(kAnswer));
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  RunReady();
  EXPECT_EQ(transport->disconnects, std::vector<long>{0});
}

TEST_F(HttpClient, RequestMayBeOpenedOnAnyThread) {
  std::thread([&] { EXPECT_EQ(client->Open("http://127.0.0.1:7/", &user, 0), AW_OK); }).join();
  RunReady();
  tcp.Last().Complete(0, transport.Get());
  Answer(kAnswer);
  EXPECT_EQ(user.calls, kAnswered);
}

}  // namespace
}  // namespace zarn::test
