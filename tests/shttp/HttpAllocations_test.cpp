// HttpAllocations_test.cpp - each allocation of a request fails in turn, from the client's making
// to the end of the answer: the user hears once how it went, and no time limit is needed for that.
// Real sockets; the server answers on the same thread.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include "AnsweringServer.h"
#include "Exhaustion.h"
#include "TraceLines.h"
#include "shttp/CAWHttpManager.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;

constexpr std::chrono::seconds kShort(2);      // no time limit is that short
constexpr std::chrono::seconds kForEver(200);  // all of them are over by then

// Does what a user does, notes the result, and allocates nothing.
class CountingUser final : public shttp::IAWChannelSink, public wface::IAWTransportSink {
 public:
  std::string setting = "PUT\nContent-Type: text/plain";
  std::string body = "{}!";

  int connects = 0;
  int answers = 0;
  int ends = 0;
  long result = 0;
  std::size_t answerLength = 0;

  void Reset() {
    channel_ = nullptr;
    connects = answers = ends = 0;
    result = 0;
    answerLength = 0;
  }

  void OnConnect(long, shttp::IAWChannelHttpClient* channel) override {
    ++connects;
    channel_ = channel;
    EXPECT_EQ(channel_->OpenWithSink(this), AW_OK);
    channel_->SetRequest(setting);
    CAWMessageBlock block(body.data(), body.size(), CAWMessageBlock::borrow);
    channel_->SendData(block, nullptr);
  }
  void OnReceive(CAWMessageBlock& data, wface::IAWTransport*,
                 wface::CAWTransportParameter*) override {
    ++answers;
    EXPECT_EQ(channel_->GetResult(result), AW_OK);
    answerLength = data.GetChainedLength();
  }
  void OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) override {}
  void OnDisconnect(long, wface::IAWTransport*) override { ++ends; }

 private:
  CAWAutoPtr<shttp::IAWChannelHttpClient> channel_;
};

std::string MakeChunkedAnswer() {
  const std::string chunk = "1000\r\n" + std::string(0x1000, 'c') + "\r\n";
  std::string answer = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 10; ++i) answer += chunk;
  return answer + "0\r\n\r\n";
}
constexpr std::size_t kAnswerLength = std::size_t{10} * 0x1000;

class HttpAllocations : public ::testing::Test {
 protected:
  // One request, to its end; the result.
  long Ask() {
    if (!Begin()) return -ENOMEM;
    EXPECT_TRUE(WaitWithin(clock, kShort, [this] { return user.ends != 0; }));
    return End();
  }
  bool Begin() {
    user.Reset();
    auto* manager = shttp::IAWHttpManager::Instance();
    if (manager->CreateHttpClient(client) != AW_OK) return false;
    if (!password.empty()) client->SetInfo(password, password);
    return client->Open(url, &user, 0) == AW_OK;
  }
  long End() {
    EXPECT_EQ(user.connects, 1);
    EXPECT_EQ(user.answers, 1);
    EXPECT_EQ(user.ends, 1);
    EXPECT_EQ(user.answerLength, user.result == 200 ? kAnswerLength : 0U);
    const long result = user.result;
    user.Reset();
    client = nullptr;
    RunReady();
    server.HangUp();
    return result;
  }

  void ExpectOneResultEachTime(long expected) {
    ASSERT_EQ(Ask(), expected);
    const EmptyPool outer;  // that the others are quickly made
    for (EachAllocation each; each.Next();) {
      long result = 0;
      const EmptyPool empty;
      each.Try([&] { result = Ask(); });
      EXPECT_TRUE(result == expected || (each.HasFailed() && result < 0)) << result;
      ASSERT_FALSE(HasFailure()) << "allocation " << each.GetNumber();
    }
    EXPECT_EQ(Ask(), expected);
  }

  HandClock clock;
  TraceLines trace;
  AnsweringServer server{MakeChunkedAnswer()};
  CountingUser user;
  CAWAutoPtr<shttp::IAWHttpClient> client;
  std::string url = server.GetUrl("127.0.0.1", "/a/path/that/is/longer/than/a/short/text?query");
  std::string password;
};

TEST_F(HttpAllocations, ARequestToAnAddressHasOneResult) { ExpectOneResultEachTime(200); }

TEST_F(HttpAllocations, ARequestToANameHasOneResult) {
  url = server.GetUrl("localhost", "/");
  ExpectOneResultEachTime(200);
}

TEST_F(HttpAllocations, ARequestWithAPasswordHasOneResult) {
  password = "a password that is longer than a short text";
  ExpectOneResultEachTime(200);
}

TEST_F(HttpAllocations, ARequestThatTheSystemTakesInPartsHasOneResult) {
  user.body = std::string(4 << 20, 'b') + '!';
  ExpectOneResultEachTime(200);
}

TEST_F(HttpAllocations, ARequestThatNobodyListensToHasOneResult) {
  server.StopListen();
  ExpectOneResultEachTime(-ECONNREFUSED);
}

TEST_F(HttpAllocations, ARequestWithARefusedSettingHasOneResult) {
  user.setting = "Host: this.is.the.library's.own.business";
  ExpectOneResultEachTime(-EINVAL);
}

TEST_F(HttpAllocations, ARequestWithARefusedUrlHasOneResult) {
  url = "http://a b/";
  ExpectOneResultEachTime(-EINVAL);
}

TEST_F(HttpAllocations, ARequestIsToldOnceAlsoWhenMemoryStaysAway) {
  ASSERT_EQ(Ask(), 200);
  const EmptyPool outer;
  for (EachAllocation each(true); each.Next();) {
    bool begun = false;
    const EmptyPool empty;
    each.Try([&] {
      begun = Begin();
      for (int i = 0; i < 50; ++i) clock.Advance(std::chrono::milliseconds(10));
    });
    if (begun) {
      EXPECT_TRUE(WaitWithin(clock, kForEver, [this] { return user.ends != 0; }));
      const long result = End();
      EXPECT_TRUE(result == 200 || (each.HasFailed() && result < 0)) << result;
    } else {
      RunReady();
      EXPECT_EQ(user.connects, 0);
    }
    ASSERT_FALSE(HasFailure()) << "allocation " << each.GetNumber();
  }
  EXPECT_EQ(Ask(), 200);
}

TEST_F(HttpAllocations, SettingsAndPasswordsThatFindNoMemoryAreToldAsThat) {
  ASSERT_TRUE(Begin());
  const std::string text(1000, 't');
  {
    const Exhaustion none;
    EXPECT_EQ(client->SetInfo(text, text), AW_ERROR_FAILURE);
  }
  EXPECT_EQ(client->Open(url, &user, 0), AW_OK);
  ASSERT_TRUE(WaitWithin(clock, kShort, [this] { return user.ends != 0; }));
  EXPECT_EQ(user.result, -ENOMEM);
}

TEST_F(HttpAllocations, LettingARequestGoOnAnotherThreadNeedsNone) {
  ASSERT_TRUE(Begin());
  std::thread([this] {
    const Exhaustion none;
    client = nullptr;
  }).join();
  for (int i = 0; i < 50; ++i) clock.Advance(std::chrono::milliseconds(10));
  EXPECT_EQ(user.connects, 0);
  EXPECT_EQ(Ask(), 200);
}

}  // namespace
}  // namespace zarn::test
