// TlsReason_test.cpp - what is told of OpenSSL's errors, also of those of a process without memory.
#include "TlsReason.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>

#include "ChildTest.h"
#include "TlsStreamPair.h"
#include "sslutils/CAWSSLError.h"

namespace sslutils::internal {
namespace {

using zarn::test::ChildTest;

struct BothReasons {
  long handshake;
  long record;
  bool operator==(const BothReasons&) const = default;
};

BothReasons ReasonsOf(int library, int reason, int next = 0) {
  TlsClientSettings settings;
  SslPtr ssl;
  EXPECT_EQ(MakeClientSsl(settings, ssl), AW_OK);
  const auto raise = [&] {
    ERR_clear_error();
    ERR_raise(library, reason);
    if (next != 0) ERR_raise(library, next);
  };
  raise();
  const long handshake = ReasonOfHandshakeFailure(ssl.get());
  raise();
  return {handshake, ReasonOfRecordFailure()};
}

TEST(TlsReason, AlertsOfThePeerAreRefusals) {
  const BothReasons refused{AW_SSL_ERROR_REFUSED, AW_SSL_ERROR_REFUSED};
  EXPECT_EQ(ReasonsOf(ERR_LIB_SSL, SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE), refused);
  EXPECT_EQ(ReasonsOf(ERR_LIB_SSL, SSL_AD_REASON_OFFSET + 255), refused);
}

TEST(TlsReason, ErrorsThatOpenSslsLibrariesHaveInCommonAreNoRefusals) {
  const BothReasons broken{AW_SSL_ERROR_HANDSHAKE, AW_SSL_ERROR_RECORD};
  EXPECT_EQ(ReasonsOf(ERR_LIB_SSL, ERR_R_INTERNAL_ERROR), broken);
  EXPECT_EQ(ReasonsOf(ERR_LIB_SSL, ERR_R_EVP_LIB), broken);
}

TEST(TlsReason, NumbersOfOtherLibrariesAreNotTakenForThoseOfTls) {
  const BothReasons broken{AW_SSL_ERROR_HANDSHAKE, AW_SSL_ERROR_RECORD};
  EXPECT_EQ(ReasonsOf(ERR_LIB_EVP, SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE), broken);
  EXPECT_EQ(ReasonsOf(ERR_LIB_EVP, SSL_R_TLSV1_ALERT_UNKNOWN_CA), broken);
}

TEST(TlsReason, NoMemoryIsToldAsSuchWhicheverLibraryFoundNone) {
  const BothReasons none{ENOMEM, ENOMEM};
  for (const int library : {ERR_LIB_SSL, ERR_LIB_EVP, ERR_LIB_CRYPTO})
    EXPECT_EQ(ReasonsOf(library, ERR_R_MALLOC_FAILURE), none) << library;
  EXPECT_EQ(ReasonsOf(ERR_LIB_SSL, ERR_R_INTERNAL_ERROR, ERR_R_MALLOC_FAILURE), none);
}

// --- a process whose OpenSSL finds no memory ---

bool noMemory = false;
int left = 0;  // so many requests are still granted then

bool MayAllocate() { return !noMemory || --left >= 0; }
void* Allocate(std::size_t size, const char*, int) {
  return MayAllocate() ? std::malloc(size) : nullptr;
}
void* Reallocate(void* block, std::size_t size, const char*, int) {
  return MayAllocate() ? std::realloc(block, size) : nullptr;
}
void Free(void* block, const char*, int) { std::free(block); }

// `work`, while after `granted` requests there is no memory. False when it needs no more than that.
template <class Work>
bool RunShort(int granted, Work work) {
  left = granted;
  noMemory = true;
  work();
  noMemory = false;
  return left < 0;
}

// The client is in the middle of its handshake.
void ShakeHandsShort(EventLoop& loop, int granted) {
  TlsPair pair(loop);
  pair.Start(pair.client);
  pair.Start(pair.server_);
  loop.RunReady();
  TlsPair::MoveOnce(pair.client.end, pair.server_.end);
  loop.RunReady();
  const std::string flight = std::exchange(pair.server_.end.sent, {});
  const bool lacked = RunShort(granted, [&] { pair.client.end.Arrive(flight); });
  EXPECT_NE(pair.client.established, AW_SSL_ERROR_REFUSED) << granted;
  if (granted == 0) {
    EXPECT_TRUE(lacked);
    EXPECT_EQ(pair.client.established, ENOMEM);
  }
}

void WriteShort(EventLoop& loop) {
  TlsPair pair(loop);
  pair.Open();
  EXPECT_TRUE(RunShort(0, [&] { TlsPair::Send(pair.client, Pattern(16384)); }));
  EXPECT_EQ(TlsPair::Send(pair.client, "more"), static_cast<AWResult>(ENOMEM));
}

TEST(TlsReason, ConnectionOfAProcessWithoutMemoryEndsWithThatReason) {
  if (ChildTest::Role() == "without memory") {
    EXPECT_EQ(CRYPTO_set_mem_functions(Allocate, Reallocate, Free), 1);
    WithLoop([](EventLoop& loop) {
      for (int granted = 0; granted < 400; granted += 50) ShakeHandsShort(loop, granted);
      WriteShort(loop);
    });
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  ChildTest child("without memory");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

}  // namespace
}  // namespace sslutils::internal
