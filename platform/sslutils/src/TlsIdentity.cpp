// TlsIdentity.cpp - see TlsIdentity.h.
#include "sslutils/internal/TlsIdentity.h"

#include <openssl/err.h>
#include <openssl/sha.h>

#include <array>
#include <new>

#include "OpenSslPointers.h"
#include "PemText.h"
#include "TlsContext.h"
#include "sslutils/CAWSSLError.h"

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;

struct TlsIdentity::Parts {
  KeyPtr key;
  Certificates chain;  // our own first
  AWResult keyResult = AW_OK;
  AWResult chainResult = AW_OK;
  std::string keyPem;
  std::string chainPem;
};

namespace {

struct StackFree {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};

// The certificates above our own; not owned.
std::unique_ptr<STACK_OF(X509), StackFree> Above(const Certificates& chain) {
  std::unique_ptr<STACK_OF(X509), StackFree> stack(sk_X509_new_null());
  for (std::size_t i = 1; stack != nullptr && i < chain.size(); ++i) {
    if (sk_X509_push(stack.get(), chain[i].get()) == 0) return nullptr;
  }
  return stack;
}

}  // namespace

TlsIdentity::TlsIdentity() : parts_(std::make_unique<Parts>()) { StartOpenSsl(); }
TlsIdentity::~TlsIdentity() = default;

AWResult TlsIdentity::SetPrivateKey(const std::string& text) try {
  Parts& parts = *parts_;
  parts.key = nullptr;
  parts.keyResult = AW_ERROR_FAILURE;  // unless there is memory to find out
  AWResult result = ReadPem(text, parts.keyPem);
  if (result == AW_OK) result = ParseKey(parts.keyPem, parts.key);
  return parts.keyResult = result;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult TlsIdentity::SetCertificate(const std::string& text) try {
  Parts& parts = *parts_;
  parts.chain.clear();
  parts.chainResult = AW_ERROR_FAILURE;
  AWResult result = ReadPem(text, parts.chainPem);
  if (result == AW_OK) result = ParseCertificates(parts.chainPem, parts.chain);
  return parts.chainResult = result;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult TlsIdentity::Check() const {
  const Parts& parts = *parts_;
  if (parts.keyResult != AW_OK) return parts.keyResult;
  if (parts.chainResult != AW_OK) return parts.chainResult;
  if (parts.chain.empty()) return AW_OK;
  if (parts.key == nullptr) return AW_SSL_ERROR_KEY_MISSING;
  const bool match = X509_check_private_key(parts.chain[0].get(), parts.key.get()) == 1;
  ERR_clear_error();
  return match ? AW_OK : AWResult{AW_SSL_ERROR_KEY_MISMATCH};
}

bool TlsIdentity::HasCertificate() const { return !parts_->chain.empty(); }

AWResult TlsIdentity::Use(ssl_st* ssl) const {
  if (!HasCertificate()) return AW_OK;
  const auto above = Above(parts_->chain);
  const bool used = above != nullptr && SSL_use_certificate(ssl, parts_->chain[0].get()) == 1 &&
                    SSL_use_PrivateKey(ssl, parts_->key.get()) == 1 &&
                    SSL_set1_chain(ssl, above.get()) == 1;
  ERR_clear_error();
  return used ? AW_OK : AWResult{AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE};
}

AWResult TlsIdentity::Use(ssl_ctx_st* context) const {
  if (!HasCertificate()) return AW_OK;
  const auto above = Above(parts_->chain);
  const bool used = above != nullptr &&
                    SSL_CTX_use_certificate(context, parts_->chain[0].get()) == 1 &&
                    SSL_CTX_use_PrivateKey(context, parts_->key.get()) == 1 &&
                    SSL_CTX_set1_chain(context, above.get()) == 1;
  ERR_clear_error();
  return used ? AW_OK : AWResult{AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE};
}

std::string TlsIdentity::GetFingerprint() const {
  if (!HasCertificate()) return {};
  const std::string both = parts_->keyPem + '\0' + parts_->chainPem;
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(both.data()), both.size(), digest.data());
  return {reinterpret_cast<const char*>(digest.data()), digest.size()};
}

}  // namespace sslutils::internal
