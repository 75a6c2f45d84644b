// TlsAuthority.h - certificates for tests, made when the test runs: an authority and what it signs.
#pragma once

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace zarn::test {

// What is asked of an authority.
struct CertificateRequest {
  std::string name = "localhost";     // subject, and DNS name
  std::string address = "127.0.0.1";  // IP address in it; empty for none
  long notBefore = -3600;             // seconds from now
  long notAfter = 3600 * 24;
  bool forClients = false;  // for the connecting side; else for the listening one
};

// Certificate and key, each as PEM.
struct KeyAndCertificate {
  std::string key;
  std::string certificate;
};

class TlsAuthority {
 public:
  explicit TlsAuthority(const std::string& name = "Test Authority") : TlsAuthority(name, nullptr) {}
  // Below another one.
  TlsAuthority(const std::string& name, const TlsAuthority& above, long notAfter = 3600 * 24)
      : TlsAuthority(name, &above, notAfter) {}

  std::string GetPem() const { return CertificateToPem(certificate_.get()); }

  KeyAndCertificate Issue(const CertificateRequest& request = {}) const {
    const Key key = MakeKey();
    const Certificate made(
        MakeCertificate(request.name, request.notBefore, request.notAfter, key.get()));
    X509_set_issuer_name(made.get(), X509_get_subject_name(certificate_.get()));
    std::string names = "DNS:" + request.name;
    if (!request.address.empty()) names += ",IP:" + request.address;
    AddExtension(made.get(), certificate_.get(), NID_subject_alt_name, names);
    AddExtension(made.get(), certificate_.get(), NID_ext_key_usage,
                 request.forClients ? "clientAuth" : "serverAuth");
    Sign(made.get());
    return {KeyToPem(key.get()), CertificateToPem(made.get())};
  }

  KeyAndCertificate IssueForClient(const std::string& name = "client") const {
    CertificateRequest request;
    request.name = name;
    request.address.clear();
    request.forClients = true;
    return Issue(request);
  }

  // A key of its own, encrypted with `password` unless that is null.
  static std::string MakeKeyPem(const char* password = nullptr) {
    return KeyToPem(MakeKey().get(), password);
  }

 private:
  struct Free {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(BIO* bio) const { BIO_free(bio); }
  };
  using Key = std::unique_ptr<EVP_PKEY, Free>;
  using Certificate = std::unique_ptr<X509, Free>;

  TlsAuthority(const std::string& name, const TlsAuthority* above, long notAfter = 3600 * 24)
      : key_(MakeKey()), certificate_(MakeCertificate(name, -3600, notAfter, key_.get())) {
    const TlsAuthority& issuer = above != nullptr ? *above : *this;
    X509* const own = certificate_.get();
    AddExtension(own, own, NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(own, own, NID_key_usage, "critical,keyCertSign,cRLSign");
    AddExtension(own, own, NID_subject_key_identifier, "hash");
    X509_set_issuer_name(own, X509_get_subject_name(issuer.certificate_.get()));
    issuer.Sign(own);
  }

  static void Check(bool good) {
    if (!good) throw std::runtime_error("no certificate for the test");
  }
  // OpenSSL is started as the library starts it: else its own clean-up comes before the library's.
  static Key MakeKey() {
    OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
    Key key(EVP_EC_gen("P-256"));
    Check(key != nullptr);
    return key;
  }
  static X509* MakeCertificate(const std::string& name, long notBefore, long notAfter,
                               EVP_PKEY* key) {
    static long serial = 1;
    X509* made = X509_new();
    Check(made != nullptr);
    X509_set_version(made, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made), serial++);
    X509_gmtime_adj(X509_getm_notBefore(made), notBefore);
    X509_gmtime_adj(X509_getm_notAfter(made), notAfter);
    X509_set_pubkey(made, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    return made;
  }
  static void AddExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    Check(extension != nullptr);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
  }
  void Sign(X509* certificate) const {
    Check(X509_sign(certificate, key_.get(), EVP_sha256()) != 0);
  }

  template <class Write>
  static std::string ToPem(Write write) {
    const std::unique_ptr<BIO, Free> bio(BIO_new(BIO_s_mem()));
    Check(bio != nullptr && write(bio.get()) == 1);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(length)};
  }
  static std::string CertificateToPem(X509* certificate) {
    return ToPem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
  }
  static std::string KeyToPem(EVP_PKEY* key, const char* password = nullptr) {
    return ToPem([&](BIO* bio) {
      return PEM_write_bio_PKCS8PrivateKey(
          bio, key, password ? EVP_aes_256_cbc() : nullptr, password,
          password ? static_cast<int>(std::strlen(password)) : 0, nullptr, nullptr);
    });
  }

  Key key_;
  Certificate certificate_;
};

}  // namespace zarn::test
