// TlsIdentity.h - the key and the certificate that one side shows.
#pragma once

#include <memory>
#include <string>

#include "keelbase/CAWError.h"
#include "sslutils/CAWDefines.h"

struct ssl_st;
struct ssl_ctx_st;

namespace sslutils::internal {

// Distinct objects may be used from distinct threads.
class SSLUTILS_API TlsIdentity {
 public:
  TlsIdentity();
  ~TlsIdentity();

  // See IAWSSLConnectorAcceptor. What is wrong with a text is remembered.
  keelbase::AWResult SetPrivateKey(const std::string& text);
  keelbase::AWResult SetCertificate(const std::string& text);

  // Whether both fit together; a key alone is no identity, and no error. 0, or a reason.
  keelbase::AWResult Check() const;
  bool HasCertificate() const;

  // Both after a good Check(). 0, or a reason.
  keelbase::AWResult Use(ssl_st* ssl) const;
  keelbase::AWResult Use(ssl_ctx_st* context) const;

  std::string GetFingerprint() const;  // the same for the same key and certificate only

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace sslutils::internal
