// HttpPeers_test.cpp - which server is meant: host names, and servers behind TLS.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "ChildTest.h"
#include "DescriptorShortage.h"
#include "HttpUser.h"
#include "ThreadShortage.h"

namespace zarn::test {
namespace {

template <class Condition>
bool Await(Condition&& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition() && std::chrono::steady_clock::now() < end) {
    RunReady();
    std::this_thread::yield();
  }
  return condition();
}

TEST_F(HttpClient, NamesAreLookedUpOffTheLoop) {
  Open("http://localhost:81/");
  ASSERT_TRUE(Await([&] { return tcp.requests != 0; }));
  EXPECT_EQ(tcp.Last().peer, keelbase::CAWInetAddr("127.0.0.1", 81));
}

TEST_F(HttpClient, NameThatDoesNotResolveIsToldAsAFailedConnect) {
  Open("http://no_such.invalid/");
  ASSERT_TRUE(Await([&] { return user.calls.size() == 3; }));
  EXPECT_EQ(user.calls, FailedWith(EADDRNOTAVAIL));
}

TEST_F(HttpClient, NameThatNoThreadLooksUpIsToldAsAFailedConnect) {
  if (ChildTest::Role() == "alone") {
    {
      const ThreadShortage shortage;
      Open("http://localhost:81/");
    }
    EXPECT_EQ(user.calls, FailedWith(ENOMEM));
    std::exit(HasFailure() ? 1 : 0);
  }
  ChildTest child("alone");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

TEST_F(HttpClient, LackOfDescriptorsIsNotTakenForANameThatDoesNotResolve) {
  const DescriptorShortage shortage;
  Open("http://localhost:81/");
  ASSERT_TRUE(Await([&] { return user.calls.size() == 3; }));
  EXPECT_EQ(user.calls, FailedWith(EMFILE));
  EXPECT_EQ(user.result, -EMFILE);
}

TEST_F(HttpClient, LookupThatNobodyWaitsForTellsNothing) {
  auto before = tcp.requests;
  do {  // now and then the lookup is quicker than we are
    before = tcp.requests;
    Open("http://localhost:81/");
  } while (tcp.requests != before);
  client = nullptr;
  client = MakeClient();
  Open("http://localhost:82/");
  ASSERT_TRUE(Await([&] { return tcp.requests != before; }));
  EXPECT_EQ(tcp.Last().peer.GetPort(), 82);
  EXPECT_EQ(tcp.requests, before + 1);
}

TEST_F(HttpClient, HttpsGoesOverTlsAndVerifies) {
  Open("https://127.0.0.1/a");
  EXPECT_EQ(tcp.requests, 0);
  ASSERT_EQ(tls.requests, 1);
  EXPECT_EQ(tls.Last().peer, keelbase::CAWInetAddr("127.0.0.1", 443));
  EXPECT_EQ(tls.Last().verify, 1);
  EXPECT_TRUE(tls.Last().hadServerName);
  const CAWAutoPtr<FakeTlsTransport> secure(new FakeTlsTransport);
  tls.Last().Complete(0, secure.Get());
  EXPECT_EQ(secure->wire.find("POST /a HTTP/1.1\r\nHost: 127.0.0.1\r\n"), 0U);
  CAWMessageBlock block(kAnswer, std::string(kAnswer).size(), CAWMessageBlock::borrow);
  secure->Receive(block);
  EXPECT_EQ(user.calls, kAnswered);
  EXPECT_EQ(user.answer, "hello");
}

TEST_F(HttpClient, HttpsIsSentInPartsAndItsEndEndsTheAnswer) {
  Open("https://127.0.0.1/a");
  const CAWAutoPtr<FakeTlsTransport> secure(new FakeTlsTransport);
  secure->AnswerNext(AW_ERROR_PARTIAL_DATA, 10);
  tls.Last().Complete(0, secure.Get());
  EXPECT_EQ(secure->wire, "POST /a HT");
  secure->ReadyToSend();
  EXPECT_EQ(secure->wire.find("POST /a HTTP/1.1\r\n"), 0U);
  secure->Receive("HTTP/1.1 200 OK\r\n\r\nhello");
  EXPECT_EQ(user.calls, Calls{"connect 0"});
  secure->End(0);
  EXPECT_EQ(user.calls, kAnswered);
  EXPECT_EQ(user.answer, "hello");
}

TEST_F(HttpClient, HandshakeThatTlsGivesUpIsAConnectThatTookTooLong) {
  Open("https://127.0.0.1/");
  tls.Last().Complete(sslutils::AW_SSL_ERROR_HANDSHAKE_TIME, nullptr);
  RunReady();
  EXPECT_EQ(user.calls, FailedWith(ETIMEDOUT));
  EXPECT_EQ(user.result, -ETIMEDOUT);
}

TEST_F(HttpClient, ReasonsOfTlsAreResults) {
  Open("https://127.0.0.1/");
  tls.Last().Complete(sslutils::AW_SSL_ERROR_CERTIFICATE_NAME, nullptr);
  RunReady();
  EXPECT_EQ(user.calls, FailedWith(sslutils::AW_SSL_ERROR_CERTIFICATE_NAME));
  EXPECT_EQ(user.result, -10113);
  EXPECT_EQ(shttp::DescribeHttpResult(user.result), sslutils::DescribeSSLResult(10113));
}

}  // namespace
}  // namespace zarn::test
