// TlsClientAllocations_test.cpp - OpenSSL finds no memory when the first connection is made. In
// a process of its own, where OpenSSL has not been used before.
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "ChildTest.h"
#include "TempRoot.h"
#include "TlsStreamPair.h"

namespace sslutils::internal {
namespace {

using zarn::test::ChildTest;

// As long as it lives, OpenSSL gets memory so many times, and then none.
class OpenSslShortage {
 public:
  explicit OpenSslShortage(int count) { left = count; }
  ~OpenSslShortage() { left = kPlenty; }
  OpenSslShortage(const OpenSslShortage&) = delete;
  OpenSslShortage& operator=(const OpenSslShortage&) = delete;

  static bool Prepare() { return CRYPTO_set_mem_functions(Allocate, Reallocate, Free) == 1; }

 private:
  static constexpr int kPlenty = -1;
  static bool Fails() { return left == 0 || (left != kPlenty && left-- == 0); }
  static void* Allocate(std::size_t size, const char*, int) {
    return Fails() ? nullptr : std::malloc(size);
  }
  static void* Reallocate(void* memory, std::size_t size, const char*, int) {
    return Fails() ? nullptr : std::realloc(memory, size);
  }
  static void Free(void* memory, const char*, int) { std::free(memory); }

  static inline int left = kPlenty;
};

// What OpenSSL keeps for itself; once that has failed, it fails for good.
void WarmOpenSsl() {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                                  SSL_CTX_free);
  const SslPtr ssl(SSL_new(context.get()));
}

AWResult MakeSsl(SslPtr& out) {
  TlsClientSettings settings;
  settings.serverName = "localhost";
  return MakeClientSsl(settings, out);
}

AWResult MakeStream(EventLoop& loop) {
  MemoryEnd end;
  SslPtr ssl;
  if (const AWResult result = MakeSsl(ssl); result != AW_OK) return result;
  try {
    CAWAutoPtr<TlsStream> stream(
        new TlsStream(loop, std::make_unique<MemoryBytes>(end), std::move(ssl)));
    stream->Disconnect();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  return AW_OK;
}

// Each time one allocation more is granted, until it is done.
template <class Work>
void ExpectDoneOnceThereIsMemory(Work work) {
  AWResult result = ENOMEM;
  for (int granted = 0; result != AW_OK && granted < 10000; ++granted) {
    const OpenSslShortage shortage(granted);
    result = work();
    ASSERT_TRUE(result == AW_OK || result == ENOMEM) << result << " after " << granted;
  }
  EXPECT_EQ(result, AW_OK);
}

void MakeFirstConnection() {
  ASSERT_TRUE(OpenSslShortage::Prepare());
  WarmOpenSsl();
  const zarn::test::TempDir dir;
  const std::string path = dir.GetPath() + "/system.pem";
  std::ofstream(path) << Authority().GetPem();
  const zarn::test::ScopedEnv system("SSL_CERT_FILE", path);
  SslPtr ssl;
  ExpectDoneOnceThereIsMemory([&] { return MakeSsl(ssl); });
  WithLoop([](EventLoop& loop) { ExpectDoneOnceThereIsMemory([&] { return MakeStream(loop); }); });
}

TEST(TlsClientAllocations, MemoryMissedAtTheFirstConnectIsToldAsThatAndMissedNoLonger) {
  if (ChildTest::Role() == "alone") {
    MakeFirstConnection();
    std::exit(HasFailure() ? 1 : 0);
  }
  ChildTest child("alone");
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
}

}  // namespace
}  // namespace sslutils::internal
