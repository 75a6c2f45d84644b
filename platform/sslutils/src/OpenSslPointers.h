// OpenSslPointers.h - OpenSSL's objects, freed by themselves.
#pragma once

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <vector>

namespace sslutils::internal {

template <auto function>
struct FreeBy {
  template <class T>
  void operator()(T* object) const {
    function(object);
  }
};

using BioPtr = std::unique_ptr<BIO, FreeBy<BIO_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, FreeBy<EVP_PKEY_free>>;
using CertificatePtr = std::unique_ptr<X509, FreeBy<X509_free>>;
using StorePtr = std::unique_ptr<X509_STORE, FreeBy<X509_STORE_free>>;
using ContextPtr = std::unique_ptr<SSL_CTX, FreeBy<SSL_CTX_free>>;
using SessionPtr = std::unique_ptr<SSL_SESSION, FreeBy<SSL_SESSION_free>>;

using Certificates = std::vector<CertificatePtr>;

}  // namespace sslutils::internal
