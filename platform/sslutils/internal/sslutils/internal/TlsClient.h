// TlsClient.h - the connecting side's settings: what it shows, whom it trusts, what it resumes.
#pragma once

#include <string>

#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "sslutils/CAWDefines.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/internal/TlsIdentity.h"
#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

struct TlsClientSettings {
  TlsIdentity identity;
  CAWSSLVerifyMode mode = AW_SSL_VERIFY_FULL;
  std::string serverName;  // empty: the peer's IP address
  keelbase::CAWInetAddr peer;
};

// For one connection. 0, or a reason. Any thread.
SSLUTILS_API keelbase::AWResult MakeClientSsl(const TlsClientSettings& settings, SslPtr& out);

// See IAWSSLManager. Any thread.
SSLUTILS_API keelbase::AWResult SetTrusted(const std::string& text);

}  // namespace sslutils::internal
