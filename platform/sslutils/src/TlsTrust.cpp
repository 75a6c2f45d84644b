// TlsTrust.cpp - see TlsTrust.h.
#include "TlsTrust.h"

#include <openssl/err.h>

#include <utility>

#include "PemText.h"

namespace sslutils::internal {

using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::internal::MutexLock;

AWResult TlsTrust::Set(const std::string& text) {
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
}

TlsTrust::Snapshot TlsTrust::Get() {
  const MutexLock lock(mutex_);
  if (store_ == nullptr) {
    StorePtr store(X509_STORE_new());
    if (store == nullptr) return {};
    X509_STORE_set_default_paths(store.get());  // a system may have none
    for (const CertificatePtr& certificate : added_)
      X509_STORE_add_cert(store.get(), certificate.get());
    ERR_clear_error();
    store_ = std::move(store);
  }
  X509_STORE_up_ref(store_.get());
  return {StorePtr(store_.get()), generation_};
}

}  // namespace sslutils::internal
