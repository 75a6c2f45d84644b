// TlsReason.h - what OpenSSL says, as reasons of CAWSSLError.h.
#pragma once

#include <openssl/ssl.h>

#include "sslutils/CAWSSLTransport.h"

namespace sslutils::internal {

// Right after a call has failed with SSL_ERROR_SSL, on the same thread, whose errors they take.
long ReasonOfHandshakeFailure(const SSL* ssl);
long ReasonOfRecordFailure();

// The resource that was short, of one of OpenSSL's errors: EMFILE, ENFILE or ENOMEM; else 0.
long ShortageOf(unsigned long error);

// Fills in what is known of the peer's certificate.
void DescribePeerCertificate(SSL* ssl, CAWSSLInfo& info);

}  // namespace sslutils::internal
