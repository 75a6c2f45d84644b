// TlsServer.cpp - see TlsServer.h.
#include "sslutils/internal/TlsServer.h"

#include <openssl/err.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "PemText.h"
#include "TlsContext.h"

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;

struct TlsServer::Authorities {
  Certificates certificates;
  AWResult result = AW_OK;
  bool required = true;
};

namespace {

constexpr unsigned char kSessionContext[] = "zarn";

// --- the time of the full handshake, which each ticket has with it ---

std::int64_t Now() { return static_cast<std::int64_t>(std::time(nullptr)); }

std::int64_t GetFullHandshake(SSL_SESSION* session) {
  void* data = nullptr;
  std::size_t size = 0;
  std::int64_t time = 0;
  SSL_SESSION_get0_ticket_appdata(session, &data, &size);
  if (size == sizeof time) std::memcpy(&time, data, sizeof time);
  return time;
}

// What a resumed session has is passed on.
int NoteFullHandshake(SSL* ssl, void*) {
  SSL_SESSION* const session = SSL_get_session(ssl);
  if (GetFullHandshake(session) != 0) return 1;
  const std::int64_t now = Now();
  return SSL_SESSION_set1_ticket_appdata(session, &now, sizeof now);
}

SSL_TICKET_RETURN MayResume(SSL*, SSL_SESSION* session, const unsigned char*, std::size_t,
                            SSL_TICKET_STATUS status, void*) {
  if (status != SSL_TICKET_SUCCESS && status != SSL_TICKET_SUCCESS_RENEW)
    return SSL_TICKET_RETURN_IGNORE_RENEW;
  const std::int64_t age = Now() - GetFullHandshake(session);
  if (age >= kSessionSeconds) return SSL_TICKET_RETURN_IGNORE_RENEW;
  return status == SSL_TICKET_SUCCESS ? SSL_TICKET_RETURN_USE : SSL_TICKET_RETURN_USE_RENEW;
}

// --- clients ---

bool AskForCertificates(SSL_CTX* context, const Certificates& authorities, bool required) {
  const StorePtr store(X509_STORE_new());
  if (store == nullptr) return false;
  X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);  // an authority needs no root
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

AWResult TlsServer::SetClientAuthorities(const std::string& text, bool required) try {
  Authorities& authorities = *authorities_;
  authorities = {};
  authorities.required = required;
  if (text.empty()) return AW_OK;
  authorities.result = AW_ERROR_FAILURE;  // unless there is memory to find out
  std::string pem;
  AWResult result = ReadPem(text, pem);
  if (result == AW_OK) result = ParseCertificates(pem, authorities.certificates);
  return authorities.result = result;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
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
  SSL_CTX_set_session_ticket_cb(context.get(), NoteFullHandshake, MayResume, nullptr);
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
