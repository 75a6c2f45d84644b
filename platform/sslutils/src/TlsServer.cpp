// TlsServer.cpp - see TlsServer.h.
#include "sslutils/internal/TlsServer.h"

#include <openssl/err.h>

#include <cerrno>
#include <utility>

#include "PemText.h"
#include "TlsContext.h"

namespace sslutils::internal {

using keelbase::AW_OK;
using keelbase::AWResult;

struct TlsServer::Authorities {
  Certificates certificates;
  AWResult result = AW_OK;
  bool required = true;
};

namespace {

constexpr unsigned char kSessionContext[] = "zarn";

bool AskForCertificates(SSL_CTX* context, const Certificates& authorities, bool required) {
  const StorePtr store(X509_STORE_new());
  if (store == nullptr) return false;
  for (const CertificatePtr& authority : authorities) {
    if (X509_STORE_add_cert(store.get(), authority.get()) != 1) return false;
    if (SSL_CTX_add_client_CA(context, authority.get()) != 1) return false;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | (required ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0),
                     nullptr);
  return SSL_CTX_set1_verify_cert_store(context, store.get()) == 1;
}

}  // namespace

TlsServer::TlsServer() : authorities_(std::make_unique<Authorities>()) {}
TlsServer::~TlsServer() { SSL_CTX_free(context_); }

AWResult TlsServer::SetClientAuthorities(const std::string& text, bool required) {
  Authorities& authorities = *authorities_;
  authorities = {};
  authorities.required = required;
  if (text.empty()) return AW_OK;
  std::string pem;
  authorities.result = ReadPem(text, pem);
  if (authorities.result == AW_OK)
    authorities.result = ParseCertificates(pem, authorities.certificates);
  return authorities.result;
}

AWResult TlsServer::Prepare() {
  if (const AWResult result = own_.Check(); result != AW_OK) return result;
  if (!own_.HasCertificate()) return AW_SSL_ERROR_OWN_CERTIFICATE_MISSING;
  if (authorities_->result != AW_OK) return authorities_->result;
  ContextPtr context = MakeContext(TLS_server_method());
  if (context == nullptr) return ENOMEM;
  // Tickets hold all that there is to resume, so that clients cost no memory here once they have
  // gone.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_session_id_context(context.get(), kSessionContext, sizeof kSessionContext - 1);
  SSL_CTX_set_options(context.get(), SSL_OP_CIPHER_SERVER_PREFERENCE);
  SSL_CTX_set_dh_auto(context.get(), 1);
  if (const AWResult result = own_.Use(context.get()); result != AW_OK) return result;
  const bool asks = !authorities_->certificates.empty();
  const bool good = !asks || AskForCertificates(context.get(), authorities_->certificates,
                                                authorities_->required);
  ERR_clear_error();
  if (!good) return ENOMEM;
  SSL_CTX_free(std::exchange(context_, context.release()));
  return AW_OK;
}

SslPtr TlsServer::MakeSsl() const {
  SslPtr ssl(context_ == nullptr ? nullptr : SSL_new(context_));
  if (ssl != nullptr) SSL_set_accept_state(ssl.get());
  ERR_clear_error();
  return ssl;
}

}  // namespace sslutils::internal
