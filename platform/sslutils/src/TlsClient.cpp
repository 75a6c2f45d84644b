// TlsClient.cpp - see TlsClient.h.
#include "sslutils/internal/TlsClient.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>
#include <new>

#include "TlsContext.h"
#include "TlsSessions.h"
#include "TlsTrust.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"

namespace sslutils::internal {

using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::internal::Mutex;
using keelbase::internal::MutexLock;

namespace {

// A connection may end during exit.
TlsTrust& Trust() { return keelbase::internal::Immortal<TlsTrust>(); }
TlsSessions& Sessions() { return keelbase::internal::Immortal<TlsSessions>(); }

// --- what becomes of the sessions of a connection, kept with it ---

struct SessionTerms {
  std::string key;
  long end = 0;         // after a full handshake, seconds since the epoch
  long resumedEnd = 0;  // after a resumption
};

long EndOf(const SSL_SESSION* session) {
  return SSL_SESSION_get_time(session) + SSL_SESSION_get_timeout(session);
}

void FreeTerms(void*, void* terms, CRYPTO_EX_DATA*, int, long, void*) {
  delete static_cast<SessionTerms*>(terms);
}

// Below 0 without memory: another call tries again.
int TermsIndex() {
  static Mutex mutex;
  static int index = -1;
  const MutexLock lock(mutex);
  if (index < 0) index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeTerms);
  return index;
}

// Each ticket of TLS 1.3 is a session that begins when it comes; its end is that of the first.
int KeepSession(SSL* ssl, SSL_SESSION* session) {
  const auto* terms = static_cast<const SessionTerms*>(SSL_get_ex_data(ssl, TermsIndex()));
  if (terms == nullptr) return 0;
  const long end = SSL_session_reused(ssl) == 1 ? terms->resumedEnd : terms->end;
  SSL_SESSION_set_timeout(session, std::max(end - SSL_SESSION_get_time(session), 0L));
  try {
    SSL_SESSION_up_ref(session);
    Sessions().Add(terms->key, SessionPtr(session));
  } catch (const std::bad_alloc&) {  // the next connection shakes hands in full
  }
  return 0;
}

std::string MakeKey(const TlsClientSettings& settings, std::uint64_t trust) {
  const auto& peer = settings.peer;
  return peer.GetIpDisplayName() + ':' + std::to_string(peer.GetPort()) + '/' +
         std::to_string(settings.mode) + '/' + std::to_string(trust) + '/' +
         settings.identity.GetFingerprint() + '/' + settings.serverName;
}

ContextPtr MakeClientContext() {
  ContextPtr made = MakeContext(TLS_client_method());
  if (made == nullptr) return nullptr;
  SSL_CTX_set_session_cache_mode(made.get(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(made.get(), KeepSession);
  return made;
}

// Null without memory: another call tries again.
SSL_CTX* Context() {
  static Mutex mutex;
  static SSL_CTX* context = nullptr;
  const MutexLock lock(mutex);
  if (context == nullptr) context = MakeClientContext().release();
  return context;
}

// --- what is checked ---

bool IsIpAddress(const std::string& name) {
  in6_addr address;
  return ::inet_pton(AF_INET, name.c_str(), &address) == 1 ||
         ::inet_pton(AF_INET6, name.c_str(), &address) == 1;
}

// OpenSSL takes a first dot for any host below the name. What is good here can only fail for lack
// of memory.
bool IsGoodName(const std::string& name) {
  return name.size() <= TLSEXT_MAXLEN_host_name && (name.empty() || name.front() != '.');
}

bool CheckName(SSL* ssl, const std::string& name) {
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
  if (IsIpAddress(name)) return X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str()) == 1;
  X509_VERIFY_PARAM_set_hostflags(
      param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  return X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size()) == 1;
}

// False without memory.
bool SetChecks(SSL* ssl, const TlsClientSettings& settings, X509_STORE* store) {
  const bool named = !settings.serverName.empty();
  if (named && !IsIpAddress(settings.serverName) &&
      SSL_set_tlsext_host_name(ssl, settings.serverName.c_str()) != 1)
    return false;
  if (settings.mode == AW_SSL_VERIFY_NONE) return true;
  SSL_set_verify(ssl, SSL_VERIFY_PEER, nullptr);
  if (SSL_set1_verify_cert_store(ssl, store) != 1) return false;
  if (settings.mode == AW_SSL_VERIFY_CHAIN) return true;
  return CheckName(ssl, named ? settings.serverName : settings.peer.GetIpDisplayName());
}

}  // namespace

AWResult MakeClientSsl(const TlsClientSettings& settings, SslPtr& out) {
  if (const AWResult result = settings.identity.Check(); result != AW_OK) return result;
  // No certificate can be for such a name.
  if (!IsGoodName(settings.serverName)) return AW_SSL_ERROR_CERTIFICATE_NAME;
  SSL_CTX* const context = Context();
  SslPtr ssl(context == nullptr ? nullptr : SSL_new(context));
  ERR_clear_error();
  if (ssl == nullptr) return ENOMEM;
  TlsTrust::Snapshot trust;
  if (settings.mode != AW_SSL_VERIFY_NONE) {
    if (const AWResult result = Trust().Get(trust); result != AW_OK) return result;
  }
  if (const AWResult result = settings.identity.Use(ssl.get()); result != AW_OK) return result;
  const bool good = SetChecks(ssl.get(), settings, trust.store.get());
  ERR_clear_error();
  if (!good) return ENOMEM;
  auto terms = std::make_unique<SessionTerms>();
  terms->key = MakeKey(settings, trust.generation);
  terms->end = static_cast<long>(std::time(nullptr)) + kSessionSeconds;
  if (const SessionPtr session = Sessions().Take(terms->key)) {
    terms->resumedEnd = EndOf(session.get());
    SSL_set_session(ssl.get(), session.get());
  }
  if (SSL_set_ex_data(ssl.get(), TermsIndex(), terms.get()) == 1) (void)terms.release();
  SSL_set_connect_state(ssl.get());
  out = std::move(ssl);
  return AW_OK;
}

AWResult SetTrusted(const std::string& text) {
  StartOpenSsl();
  return Trust().Set(text);
}

}  // namespace sslutils::internal
