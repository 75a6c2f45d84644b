// HttpTimeLimits_test.cpp - how long a connect, a request and its answer may take.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "HttpUser.h"

namespace zarn::test {
namespace {

TEST_F(HttpClient, ConnectHasATimeLimit) {
  Open();
  clock.Advance(std::chrono::milliseconds(9999));
  EXPECT_TRUE(user.calls.empty());
  EXPECT_TRUE(tcp.Last().IsPending());
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_EQ(user.calls, FailedWith(ETIMEDOUT));
  EXPECT_EQ(tcp.Last().GetReferences(), 1U);  // let go of: that cancels
}

TEST_F(HttpClient, SendHasATimeLimit) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 10);
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 1);
  Send();
  clock.Advance(std::chrono::milliseconds(29999));
  transport->ReadyToSend();
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  clock.Advance(std::chrono::milliseconds(1));
  ExpectFailure(ETIME);
}

TEST_F(HttpClient, AnswerHasATimeLimitAsAWhole) {
  Send();
  Answer("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n");
  for (int seconds = 0; seconds < 59; ++seconds) {
    clock.Advance(std::chrono::seconds(1));
    Answer("x");
  }
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  clock.Advance(std::chrono::seconds(1));
  ExpectFailure(ETIME);
}

TEST_F(HttpClient, TimeOfTheAnswerBeginsWhenTheRequestIsSent) {
  transport->AnswerNext(AW_ERROR_PARTIAL_DATA, 10);
  Send();
  clock.Advance(std::chrono::seconds(29));
  transport->ReadyToSend();
  clock.Advance(std::chrono::seconds(59));
  Answer(kAnswer);
  EXPECT_EQ(user.result, 200);
}

struct Silence {
  std::uint32_t sendMs;
  std::uint32_t answerMs;
  std::uint32_t limit;
};

TEST_F(HttpClient, SilenceOfAServerEndsNoConnectionBeforeTheLimitsDo) {
  for (const Silence& silence : {Silence{30000, 60000, 60000}, Silence{70000, 60000, 70000},
                                 Silence{50, 200, 3000}, Silence{1000000000, 0, 86400000}}) {
    CAWHttpLimits limits;
    limits.sendMs = silence.sendMs;
    limits.answerMs = silence.answerMs;
    client->SetLimits(limits);
    user = User();
    transport = new FakeTcpTransport;
    Send();
    EXPECT_EQ(transport->silenceLimits, std::vector<std::uint32_t>{silence.limit});
  }
}

TEST_F(HttpClient, SilenceOfAServerBehindTlsEndsNoConnectionBeforeTheLimitsDo) {
  const CAWAutoPtr<FakeTlsTransport> secure(new FakeTlsTransport);
  Open("https://127.0.0.1/");
  tls.Last().Complete(0, secure.Get());
  EXPECT_EQ(secure->silenceLimits, std::vector<std::uint32_t>{60000});
}

TEST_F(HttpClient, LimitsOfTheManagerAreThoseOfClientsMadeLater) {
  CAWHttpLimits limits;
  limits.connectMs = 50;
  IAWHttpManager::Instance()->SetLimits(limits);
  const auto restore = std::shared_ptr<void>(
      nullptr, [](void*) { IAWHttpManager::Instance()->SetLimits(CAWHttpLimits()); });
  Open();
  clock.Advance(std::chrono::milliseconds(51));
  EXPECT_TRUE(user.calls.empty());  // made before
  client = MakeClient();
  Open();
  clock.Advance(std::chrono::milliseconds(51));
  EXPECT_EQ(user.calls, FailedWith(ETIMEDOUT));
}

}  // namespace
}  // namespace zarn::test
