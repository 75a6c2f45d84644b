// TlsClient_test.cpp - what a connecting side trusts and checks, and what becomes of a shortage.
#include "sslutils/internal/TlsClient.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cerrno>
#include <fstream>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

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

// The authority's file as a directory of OpenSSL's names it.
std::string NameInDirectory(const std::string& pem) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> bio(
      BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(
      PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
  std::ostringstream name;
  name << std::hex << std::setw(8) << std::setfill('0') << X509_subject_name_hash(certificate.get())
       << ".0";
  return name.str();
}

// The store has been made before there is a shortage.
long ConnectWithTheSystemsAuthorities(EventLoop& loop, bool lacksDescriptors = false) {
  TlsPair pair(loop);
  EXPECT_EQ(SetTrusted(""), AW_OK);
  TlsClientSettings settings;
  settings.serverName = "localhost";
  SslPtr ssl;
  EXPECT_EQ(MakeClientSsl(settings, ssl), AW_OK);
  pair.Make(pair.client, std::move(ssl));
  std::optional<zarn::test::DescriptorShortage> shortage;
  if (lacksDescriptors) shortage.emplace();
  pair.StartBoth();
  return pair.client.established;
}

TEST(TlsClient, ShortageOfDescriptorsWhileADirectoryIsReadIsNoUnknownAuthority) {
  const zarn::test::TempDir dir;
  const zarn::test::ScopedEnv directory("SSL_CERT_DIR", dir.GetPath());
  const SystemFile none("/nowhere/at/all");
  WithLoop([&](EventLoop& loop) {
    EXPECT_EQ(ConnectWithTheSystemsAuthorities(loop), AW_SSL_ERROR_UNKNOWN_AUTHORITY);
    const std::string pem = Authority().GetPem();
    std::ofstream(dir.GetPath() + "/" + NameInDirectory(pem)) << pem;
    EXPECT_EQ(ConnectWithTheSystemsAuthorities(loop, true), EMFILE);
    EXPECT_EQ(ConnectWithTheSystemsAuthorities(loop), 0);
  });
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
