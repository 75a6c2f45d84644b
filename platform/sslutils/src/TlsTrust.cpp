// TlsTrust.cpp - see TlsTrust.h.
#include "TlsTrust.h"

#include <openssl/err.h>

#include <cerrno>
#include <new>
#include <utility>

#include "PemText.h"
#include "TlsReason.h"

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::internal::MutexLock;

namespace {

// What OpenSSL's errors say of a step that has failed: which resource was short, or 0 for something
// that is not there. Without memory there may be no error at all.
AWResult TakeShortage() {
  AWResult shortage = ERR_peek_error() == 0 ? ENOMEM : AW_OK;
  while (const unsigned long error = ERR_get_error()) {
    if (const long found = ShortageOf(error); found != 0) shortage = static_cast<AWResult>(found);
  }
  return shortage;
}

// As X509_STORE_set_default_paths, which does not tell that something has failed. A system may have
// no authorities; only a shortage is a failure.
AWResult AddSystem(X509_STORE* store) {
  X509_LOOKUP* const file = X509_STORE_add_lookup(store, X509_LOOKUP_file());
  X509_LOOKUP* const directory = X509_STORE_add_lookup(store, X509_LOOKUP_hash_dir());
  X509_LOOKUP* const uri = X509_STORE_add_lookup(store, X509_LOOKUP_store());
  if (file == nullptr || directory == nullptr || uri == nullptr) return ENOMEM;
  AWResult result = AW_OK;
  const auto note = [&](int done) {
    if (done != 1 && result == AW_OK) result = TakeShortage();
  };
  note(X509_LOOKUP_load_file(file, nullptr, X509_FILETYPE_DEFAULT));
  note(X509_LOOKUP_add_dir(directory, nullptr, X509_FILETYPE_DEFAULT));
  note(X509_LOOKUP_add_store(uri, nullptr));
  return result;
}

AWResult MakeStore(const Certificates& added, StorePtr& out) {
  ERR_clear_error();
  StorePtr store(X509_STORE_new());
  AWResult result = store != nullptr ? AddSystem(store.get()) : ENOMEM;
  for (const CertificatePtr& certificate : added) {
    if (result == AW_OK && X509_STORE_add_cert(store.get(), certificate.get()) != 1)
      result = ENOMEM;
  }
  ERR_clear_error();
  // A certificate that was given is trusted although another one may have signed it. The flag holds
  // for the whole store, so then also for the system's certificates.
  if (result == AW_OK && !added.empty())
    X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
  if (result == AW_OK) out = std::move(store);
  return result;
}

}  // namespace

AWResult TlsTrust::Set(const std::string& text) try {
  Certificates added;
  if (!text.empty()) {
    std::string pem;
    AWResult result = ReadPem(text, pem);
    if (result == AW_OK) result = ParseCertificates(pem, added);
    if (result != AW_OK) return result;
  }
  const MutexLock lock(mutex_);
  added_ = std::move(added);
  store_ = nullptr;
  ++generation_;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult TlsTrust::Get(Snapshot& out) {
  const MutexLock lock(mutex_);
  if (store_ == nullptr) {
    if (const AWResult result = MakeStore(added_, store_); result != AW_OK) return result;
  }
  X509_STORE_up_ref(store_.get());
  out = {StorePtr(store_.get()), generation_};
  return AW_OK;
}

}  // namespace sslutils::internal
