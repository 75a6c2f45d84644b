// CAWSSLError.cpp - reasons as text.
#include "sslutils/CAWSSLError.h"

namespace sslutils {

namespace {

const char* TextOf(long reason) {
  switch (reason) {
    case AW_SSL_ERROR_HANDSHAKE:
      return "The peer does not speak TLS, or breaks its rules";
    case AW_SSL_ERROR_HANDSHAKE_TIME:
      return "The TLS handshake took too long";
    case AW_SSL_ERROR_VERSION:
      return "No TLS version in common (1.2 is the oldest accepted)";
    case AW_SSL_ERROR_NO_COMMON_CIPHER:
      return "No cipher in common";
    case AW_SSL_ERROR_REFUSED:
      return "The peer has refused the connection";
    case AW_SSL_ERROR_PEER_REFUSED_CERTIFICATE:
      return "The peer does not accept our certificate, or wants one";
    case AW_SSL_ERROR_CERTIFICATE_EXPIRED:
      return "The peer's certificate, or one of its authorities', has expired";
    case AW_SSL_ERROR_CERTIFICATE_NOT_YET_VALID:
      return "The peer's certificate is not valid yet";
    case AW_SSL_ERROR_CERTIFICATE_NAME:
      return "The peer's certificate is for another name";
    case AW_SSL_ERROR_UNKNOWN_AUTHORITY:
      return "The peer's certificate comes from an unknown authority";
    case AW_SSL_ERROR_CERTIFICATE_MISSING:
      return "The peer has no certificate";
    case AW_SSL_ERROR_CERTIFICATE_INVALID:
      return "The peer's certificate is not valid";
    case AW_SSL_ERROR_RECORD:
      return "The peer sent bytes that are no TLS record of this connection";
    case AW_SSL_ERROR_CUT:
      return "The connection was cut: its end was not announced";
    case AW_SSL_ERROR_KEY_UNREADABLE:
      return "No private key in PEM form";
    case AW_SSL_ERROR_KEY_ENCRYPTED:
      return "The private key is encrypted";
    case AW_SSL_ERROR_KEY_MISMATCH:
      return "The private key does not belong to the certificate";
    case AW_SSL_ERROR_KEY_MISSING:
      return "A certificate without its private key";
    case AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE:
      return "No usable certificate in PEM form";
    case AW_SSL_ERROR_OWN_CERTIFICATE_MISSING:
      return "No certificate was set";
    default:
      return nullptr;
  }
}

}  // namespace

keelbase::CAWString DescribeSSLResult(long reason) {
  const char* text = TextOf(reason);
  return text != nullptr ? keelbase::CAWString(text) : keelbase::DescribeResult(reason);
}

}  // namespace sslutils
