// TlsReason.cpp - see TlsReason.h.
#include "TlsReason.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cerrno>

#include "OpenSslPointers.h"

namespace sslutils::internal {

namespace {

long ReasonOfVerification(long result) {
  switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return AW_SSL_ERROR_CERTIFICATE_EXPIRED;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return AW_SSL_ERROR_CERTIFICATE_NOT_YET_VALID;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return AW_SSL_ERROR_CERTIFICATE_NAME;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
      return AW_SSL_ERROR_UNKNOWN_AUTHORITY;
    default:
      return AW_SSL_ERROR_CERTIFICATE_INVALID;
  }
}

// The first of the queue, which is empty then; but wherever it stands that something was short,
// since some of OpenSSL's functions call that an internal error first.
unsigned long TakeError() {
  unsigned long taken = ERR_get_error();
  while (const unsigned long next = ERR_get_error()) {
    if (ShortageOf(next) != 0) taken = next;
  }
  return taken;
}

// 0 for an error that tells no more than that something has failed.
long ReasonOfError(unsigned long error) {
  if (const long shortage = ShortageOf(error); shortage != 0) return shortage;
  if (ERR_GET_LIB(error) != ERR_LIB_SSL) return 0;
  switch (ERR_GET_REASON(error)) {
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_VERSION_TOO_LOW:
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
      return AW_SSL_ERROR_VERSION;
    case SSL_R_NO_SHARED_CIPHER:
      return AW_SSL_ERROR_NO_COMMON_CIPHER;
    case SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE:
      return AW_SSL_ERROR_CERTIFICATE_MISSING;
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_SSLV3_ALERT_NO_CERTIFICATE:
      return AW_SSL_ERROR_PEER_REFUSED_CERTIFICATE;
    default:
      return 0;
  }
}

// OpenSSL's code for an alert of the peer is that offset plus the byte of the alert.
bool IsAlert(unsigned long error) {
  const int alert = ERR_GET_REASON(error) - SSL_AD_REASON_OFFSET;
  return ERR_GET_LIB(error) == ERR_LIB_SSL && alert >= 0 && alert <= 255;
}

}  // namespace

long ShortageOf(unsigned long error) {
  const int reason = ERR_GET_REASON(error);
  if (reason == ERR_R_MALLOC_FAILURE) return ENOMEM;
  const bool named = reason == EMFILE || reason == ENFILE || reason == ENOMEM;
  return ERR_GET_LIB(error) == ERR_LIB_SYS && named ? reason : 0;
}

// An authority may only not have been found because its file could not be opened.
long ReasonOfHandshakeFailure(const SSL* ssl) {
  const unsigned long error = TakeError();
  const long known = ReasonOfError(error);
  const long shortage = ShortageOf(error);
  const long verified = SSL_get_verify_result(ssl);
  const bool checked = SSL_get_verify_mode(ssl) != SSL_VERIFY_NONE;
  if (verified != X509_V_OK && checked && shortage != ENOMEM) {
    const long reason = ReasonOfVerification(verified);
    return reason == AW_SSL_ERROR_UNKNOWN_AUTHORITY && shortage != 0 ? shortage : reason;
  }
  if (known != 0) return known;
  return IsAlert(error) ? AW_SSL_ERROR_REFUSED : AW_SSL_ERROR_HANDSHAKE;
}

// With TLS 1.3 a server looks at our certificate when we are connected already.
long ReasonOfRecordFailure() {
  const unsigned long error = TakeError();
  const long known = ReasonOfError(error);
  if (known == AW_SSL_ERROR_PEER_REFUSED_CERTIFICATE || known == ENOMEM) return known;
  return IsAlert(error) ? AW_SSL_ERROR_REFUSED : AW_SSL_ERROR_RECORD;
}

void DescribePeerCertificate(SSL* ssl, CAWSSLInfo& info) {
  X509* certificate = SSL_get0_peer_certificate(ssl);
  if (certificate == nullptr) return;
  info.peerVerified =
      SSL_get_verify_mode(ssl) != SSL_VERIFY_NONE && SSL_get_verify_result(ssl) == X509_V_OK;
  const auto text = [](auto write) {
    const BioPtr bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr || write(bio.get()) < 0) return keelbase::CAWString();
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return keelbase::CAWString(data, static_cast<std::size_t>(length));
  };
  info.peerSubject = text([&](BIO* bio) {
    return X509_NAME_print_ex(bio, X509_get_subject_name(certificate), 0,
                              XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
  });
  info.peerCertificate = text([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

}  // namespace sslutils::internal
