// TlsServer.h - the listening side's settings.
#pragma once

#include <memory>
#include <string>

#include "keelbase/CAWError.h"
#include "sslutils/CAWDefines.h"
#include "sslutils/internal/TlsIdentity.h"
#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

// Of one listener. Sessions are resumed only by the context that they began with. Distinct objects
// may be used from distinct threads.
class SSLUTILS_API TlsServer {
 public:
  TlsServer();
  ~TlsServer();
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;

  // See IAWSSLAcceptor.
  keelbase::AWResult SetPrivateKey(const std::string& text) { return own_.SetPrivateKey(text); }
  keelbase::AWResult SetCertificate(const std::string& text) { return own_.SetCertificate(text); }
  keelbase::AWResult SetClientAuthorities(const std::string& text, bool required);

  // After the settings, before the first connection. 0, or a reason.
  keelbase::AWResult Prepare();

  // For one connection; null without memory.
  SslPtr MakeSsl() const;

 private:
  struct Authorities;

  TlsIdentity own_;
  std::unique_ptr<Authorities> authorities_;
  ssl_ctx_st* context_ = nullptr;  // owned
};

}  // namespace sslutils::internal
