// TlsBio.h - through which OpenSSL reads and writes the transport below a TlsStream.
#pragma once

#include <openssl/bio.h>

#include <cstddef>

namespace sslutils::internal {

class TlsStream;

// Has no buffer of its own, and never blocks for good.
class TlsBio {
 public:
  static BIO* Make(TlsStream& stream);  // throws std::bad_alloc; the caller's

 private:
  static BIO_METHOD* Method();  // null without memory: another call tries again
  static BIO_METHOD* MakeMethod();
  static TlsStream& Stream(BIO* bio) { return *static_cast<TlsStream*>(BIO_get_data(bio)); }
  static int Read(BIO* bio, char* data, std::size_t length, std::size_t* count);
  static int Write(BIO* bio, const char* data, std::size_t length, std::size_t* count);
};

}  // namespace sslutils::internal
