// TlsSettingsAllocations_test.cpp - each allocation fails in turn while a connector or an acceptor
// of TLS is told its key, its certificate and its authorities, and starts to listen. What is
// refused can be set again.
#include <gtest/gtest.h>

#include <string>

#include "Exhaustion.h"
#include "RealTls.h"
#include "TlsAuthority.h"
#include "sslutils/internal/TlsServer.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;

struct Texts {
  const TlsAuthority authority;
  const KeyAndCertificate own = authority.Issue();
  const std::string authorities = authority.GetPem();
};
const Texts& TheTexts() {
  static const Texts& texts = *new Texts;
  return texts;
}

template <class Work>
void ExpectEachIsAnsweredWithACode(Work work) {
  for (EachAllocation each; each.Next();) {
    AWResult result = AW_OK;
    {
      const EmptyPool pool;
      each.Try([&] { result = work(); });
    }
    EXPECT_TRUE(result == AW_OK || each.HasFailed()) << result;
    EXPECT_EQ(work(), AW_OK) << each.GetNumber();
  }
}

template <class Side>
void ExpectIdentityIsAnsweredWithACode(Side& side) {
  ExpectEachIsAnsweredWithACode([&] { return side.SetPrivateKey(TheTexts().own.key); });
  ExpectEachIsAnsweredWithACode([&] { return side.SetCertificate(TheTexts().own.certificate); });
}

// Whoever has not looked at the answer must not go on with less than was asked for.
template <class Work>
void ExpectTheListenRefusesWhatWasRefused(sslutils::internal::TlsServer& server, Work work) {
  for (EachAllocation each; each.Next();) {
    AWResult result = AW_OK;
    {
      const EmptyPool pool;
      each.Try([&] { result = work(); });
    }
    EXPECT_EQ(server.Prepare(), result) << each.GetNumber();
  }
}

TEST(TlsSettingsAllocations, WhatWasRefusedIsRefusedByTheListenToo) {
  const Texts& texts = TheTexts();
  sslutils::internal::TlsServer server;
  ASSERT_EQ(server.SetPrivateKey(texts.own.key), AW_OK);
  ASSERT_EQ(server.SetCertificate(texts.own.certificate), AW_OK);
  ExpectTheListenRefusesWhatWasRefused(
      server, [&] { return server.SetClientAuthorities(texts.authorities, true); });
  ASSERT_EQ(server.SetClientAuthorities("", true), AW_OK);
  ExpectTheListenRefusesWhatWasRefused(server, [&] { return server.SetPrivateKey(texts.own.key); });
  ASSERT_EQ(server.SetPrivateKey(texts.own.key), AW_OK);
  ExpectTheListenRefusesWhatWasRefused(
      server, [&] { return server.SetCertificate(texts.own.certificate); });
}

TEST(TlsSettingsAllocations, AConnectorsIdentity) {
  TheTexts();
  const auto connector = MakeTlsConnector();
  ExpectIdentityIsAnsweredWithACode(*connector);
}

TEST(TlsSettingsAllocations, AnAcceptorsIdentityAndAuthorities) {
  TheTexts();
  const auto acceptor = MakeTlsAcceptor();
  ExpectIdentityIsAnsweredWithACode(*acceptor);
  ExpectEachIsAnsweredWithACode(
      [&] { return acceptor->SetClientAuthorities(TheTexts().authorities, true); });
}

TEST(TlsSettingsAllocations, TrustedCertificates) {
  TheTexts();
  ExpectEachIsAnsweredWithACode([] {
    return sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(TheTexts().authorities);
  });
}

TEST(TlsSettingsAllocations, AStartOfListening) {
  TlsServerFixture server(TheTexts().own);
  server.acceptor->SetClientAuthorities(TheTexts().authorities, true);
  ExpectEachIsAnsweredWithACode([&] {
    server.acceptor->StopListen();
    return server.acceptor->StartListen(&server.sink, keelbase::CAWInetAddr("127.0.0.1", 0), 16);
  });
}

}  // namespace
}  // namespace zarn::test
