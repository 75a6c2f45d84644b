// TlsBio.cpp - see TlsBio.h.
#include "TlsBio.h"

#include <new>

#include "keelbase/internal/Mutex.h"
#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

BIO* TlsBio::Make(TlsStream& stream) {
  const BIO_METHOD* const method = Method();
  BIO* const bio = method == nullptr ? nullptr : BIO_new(method);
  if (bio == nullptr) throw std::bad_alloc();
  BIO_set_data(bio, &stream);
  BIO_set_init(bio, 1);
  return bio;
}

BIO_METHOD* TlsBio::Method() {
  static keelbase::internal::Mutex mutex;
  static BIO_METHOD* method = nullptr;
  const keelbase::internal::MutexLock lock(mutex);
  if (method == nullptr) method = MakeMethod();
  return method;
}

// It needs no type number of its own: nobody looks for a BIO by its type.
BIO_METHOD* TlsBio::MakeMethod() {
  BIO_METHOD* const made = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "transport");
  if (made == nullptr) return nullptr;
  BIO_meth_set_read_ex(made, Read);
  BIO_meth_set_write_ex(made, Write);
  BIO_meth_set_ctrl(
      made, [](BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1L : 0L; });
  return made;
}

int TlsBio::Read(BIO* bio, char* data, std::size_t length, std::size_t* count) {
  BIO_clear_retry_flags(bio);
  *count = Stream(bio).ReadBelow(data, length);
  if (*count != 0) return 1;
  BIO_set_retry_read(bio);
  return -1;
}

int TlsBio::Write(BIO* bio, const char* data, std::size_t length, std::size_t* count) {
  BIO_clear_retry_flags(bio);
  Stream(bio).WriteBelow(data, length);
  *count = length;
  return 1;
}

}  // namespace sslutils::internal
