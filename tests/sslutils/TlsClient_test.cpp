// TlsClient_test.cpp - what a connecting side trusts and checks, and what becomes of a shortage.
#include "sslutils/internal/TlsClient.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "DescriptorShortage.h"
#include "TempRoot.h"
#include "TlsStreamPair.h"

namespace sslutils::internal {
namespace {

// As long as it lives, the system's authorities are those in a file. What is trusted begins anew.
class SystemFile {
 public:
  explicit SystemFile(const std::string& path) : variable_("SSL_CERT_FILE", path) {
    EXPECT_EQ(SetTrusted(""), AW_OK);
  }
  ~SystemFile() { EXPECT_EQ(SetTrusted(""), AW_OK); }
  SystemFile(const SystemFile&) = delete;
  SystemFile& operator=(const SystemFile&) = delete;

 private:
  const zarn::test::ScopedEnv variable_;
};

int CountTrusted(const SslPtr& ssl) {
  X509_STORE* store = nullptr;
  EXPECT_EQ(SSL_get0_verify_cert_store(ssl.get(), &store), 1);
  STACK_OF(X509)* all = X509_STORE_get1_all_certs(store);
  const int count = sk_X509_num(all);
  sk_X509_pop_free(all, X509_free);
  return count;
}

TEST(TlsClient, ShortageOfDescriptorsFailsOneConnectAndNoLaterOne) {
  const zarn::test::TempDir dir;
  const std::string path = dir.GetPath() + "/system.pem";
  std::ofstream(path) << Authority().GetPem();
  const SystemFile file(path);
  SslPtr ssl;
  {
    const zarn::test::DescriptorShortage shortage;
    EXPECT_EQ(MakeClientSsl({}, ssl), AWResult{EMFILE});
  }
  EXPECT_EQ(ssl, nullptr);
  ASSERT_EQ(MakeClientSsl({}, ssl), AW_OK);
  EXPECT_EQ(CountTrusted(ssl), 1);
}

TEST(TlsClient, SystemWithoutAuthoritiesIsNoFailure) {
  const SystemFile file("/nowhere/at/all");
  SslPtr ssl;
  ASSERT_EQ(MakeClientSsl({}, ssl), AW_OK);
  EXPECT_EQ(CountTrusted(ssl), 0);
}

TEST(TlsClient, NamesThatNoCertificateIsForAreRefused) {
  TlsClientSettings settings;
  SslPtr ssl;
  for (const std::string& name :
       {std::string(".localhost"), std::string("."), std::string(256, 'a')}) {
    settings.serverName = name;
    EXPECT_EQ(MakeClientSsl(settings, ssl), AWResult{AW_SSL_ERROR_CERTIFICATE_NAME}) << name;
  }
  settings.serverName = "localhost.";
  EXPECT_EQ(MakeClientSsl(settings, ssl), AW_OK);
}

}  // namespace
}  // namespace sslutils::internal
