// TlsContext.h - what holds for every TLS connection of ours.
#pragma once

#include "OpenSslPointers.h"

namespace sslutils::internal {

// How long after a full handshake sessions may be resumed.
inline constexpr long kSessionSeconds = 3600;

// Before OpenSSL is used in any other way. Its own clean-up at exit would come before that of the
// loops, whose connections still need it for their last writes, so there is none: the system takes
// everything back. A program that has used OpenSSL before this keeps it.
void StartOpenSsl();

// TLS 1.2 or later, without renegotiation, compression and early data. `method` is the side's. Null
// without memory.
ContextPtr MakeContext(const SSL_METHOD* method);

}  // namespace sslutils::internal
