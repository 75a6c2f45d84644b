// TlsContext.h - what holds for every TLS connection of ours.
#pragma once

#include "OpenSslPointers.h"

namespace sslutils::internal {

// TLS 1.2 or later, without renegotiation, compression and early data. `method` is the side's. Null
// without memory.
ContextPtr MakeContext(const SSL_METHOD* method);

}  // namespace sslutils::internal
