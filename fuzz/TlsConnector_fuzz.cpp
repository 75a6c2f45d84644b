// TlsConnector_fuzz.cpp - the connecting side of TLS against a peer whose bytes somebody changes on
// the way, before, during and after the handshake.
#include "TlsFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return zarn::fuzz::RunOne(data, size, false);
}
