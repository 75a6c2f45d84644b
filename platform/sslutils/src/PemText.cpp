// PemText.cpp - see PemText.h.
#include "PemText.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "keelbase/internal/FileDescriptor.h"
#include "sslutils/CAWSSLError.h"

namespace sslutils::internal {

using keelbase::AW_OK;
using keelbase::AWResult;

namespace {

constexpr std::size_t kMaxFileSize = 1024 * 1024;

AWResult LastError() { return static_cast<AWResult>(errno); }

AWResult ReadFile(const std::string& path, std::string& out) {
  // O_NONBLOCK: a pipe is to be refused, not waited for.
  const keelbase::internal::FileDescriptor file(
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file) return LastError();
  struct stat status {};
  if (::fstat(file.Get(), &status) != 0) return LastError();
  if (S_ISDIR(status.st_mode)) return EISDIR;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (static_cast<std::size_t>(status.st_size) > kMaxFileSize) return EFBIG;
  std::string content(kMaxFileSize + 1, '\0');
  std::size_t length = 0;
  while (length < content.size()) {
    const ssize_t count = ::read(file.Get(), content.data() + length, content.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return LastError();
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > kMaxFileSize) return EFBIG;
  content.resize(length);
  out = std::move(content);
  return AW_OK;
}

BioPtr Reader(const std::string& pem) {
  return BioPtr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

int RefusePassword(char*, int, int, void* asked) {
  *static_cast<bool*>(asked) = true;
  return -1;
}

}  // namespace

AWResult ReadPem(const std::string& text, std::string& out) {
  if (text.find("-----BEGIN") == std::string::npos) return ReadFile(text, out);
  if (text.size() > kMaxFileSize) return EFBIG;
  out = text;
  return AW_OK;
}

AWResult ParseKey(const std::string& pem, KeyPtr& out) {
  bool asked = false;
  const BioPtr bio = Reader(pem);
  KeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, RefusePassword, &asked) : nullptr);
  ERR_clear_error();
  if (key == nullptr)
    return asked ? AWResult{AW_SSL_ERROR_KEY_ENCRYPTED} : AWResult{AW_SSL_ERROR_KEY_UNREADABLE};
  out = std::move(key);
  return AW_OK;
}

AWResult ParseCertificates(const std::string& pem, Certificates& out) {
  bool asked = false;
  Certificates found;
  if (const BioPtr bio = Reader(pem)) {
    const auto read = [&] {
      return CertificatePtr(PEM_read_bio_X509(bio.get(), nullptr, RefusePassword, &asked));
    };
    while (CertificatePtr next = read()) found.push_back(std::move(next));
  }
  // The end of the text is the one error that is none.
  const bool ended = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  if (found.empty() || !ended) return AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE;
  out = std::move(found);
  return AW_OK;
}

}  // namespace sslutils::internal
