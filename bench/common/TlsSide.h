// TlsSide.h - what the programs that measure TLS share: certificates, made by the receiving side of
// each run, and contexts of OpenSSL for those that use it directly.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <fstream>
#include <memory>
#include <string>

#include "Bench.h"
#include "TlsAuthority.h"

namespace bench {

// Files in the directory of the run.
struct TlsFiles {
  explicit TlsFiles(const std::string& dir)
      : key(dir + "/key.pem"),
        certificate(dir + "/certificate.pem"),
        authority(dir + "/authority.pem") {}

  // For 127.0.0.1 and all names that end in ".bench.example".
  void Make() const {
    zarn::test::CertificateRequest request;
    request.name = "*.bench.example";
    const zarn::test::TlsAuthority made;
    const auto own = made.Issue(request);
    std::ofstream(key) << own.key;
    std::ofstream(certificate) << own.certificate;
    std::ofstream(authority) << made.GetPem();
  }

  std::string key;
  std::string certificate;
  std::string authority;
};

struct SslFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* ssl) const { SSL_free(ssl); }
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslFree>;
using Ssl = std::unique_ptr<SSL, SslFree>;
using SslSession = std::unique_ptr<SSL_SESSION, SslFree>;

[[noreturn]] inline void FailSsl(const std::string& what) {
  Fail(what + ": " + ERR_error_string(ERR_peek_error(), nullptr));
}

// Without tickets a client that only sends may close at once: nothing that it has not read is lost
// with the connection.
inline SslContext MakeServerContext(const TlsFiles& files, bool tickets) {
  SslContext context(SSL_CTX_new(TLS_server_method()));
  if (context == nullptr ||
      SSL_CTX_use_certificate_chain_file(context.get(), files.certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), files.key.c_str(), SSL_FILETYPE_PEM) != 1)
    FailSsl("server context");
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  if (!tickets) SSL_CTX_set_num_tickets(context.get(), 0);
  return context;
}

inline SslContext MakeClientContext(const TlsFiles& files) {
  SslContext context(SSL_CTX_new(TLS_client_method()));
  if (context == nullptr ||
      SSL_CTX_load_verify_locations(context.get(), files.authority.c_str(), nullptr) != 1)
    FailSsl("client context");
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  return context;
}

}  // namespace bench
