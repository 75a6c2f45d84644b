// TlsContext.cpp - see TlsContext.h.
#include "TlsContext.h"

#include <openssl/err.h>

namespace sslutils::internal {

namespace {
constexpr int kSecurityLevel = 2;  // 112 bits: RSA and DH from 2048 bits on, no SHA-1
}  // namespace

void StartOpenSsl() {
  static const bool started = OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
  (void)started;  // what fails here fails again, and is told, when something is made
}

ContextPtr MakeContext(const SSL_METHOD* method) {
  ContextPtr context(SSL_CTX_new(method));
  if (context == nullptr) {
    ERR_clear_error();
    return nullptr;
  }
  SSL_CTX* ctx = context.get();
  // After the system's own configuration file, which may ask for less.
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_max_proto_version(ctx, 0);
  SSL_CTX_set_security_level(ctx, kSecurityLevel);
  SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_clear_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF |
                                 SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION |
                                 SSL_OP_LEGACY_SERVER_CONNECT);
  SSL_CTX_set_max_early_data(ctx, 0);
  SSL_CTX_set_recv_max_early_data(ctx, 0);
  SSL_CTX_set_timeout(ctx, kSessionSeconds);
  // An idle connection holds no record buffers.
  SSL_CTX_set_mode(ctx, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return context;
}

}  // namespace sslutils::internal
