// CAWSSLError.h - why a TLS connection was refused or has ended.
#pragma once

#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"
#include "sslutils/CAWDefines.h"

namespace sslutils {

// Reasons of OnSSLConnected and OnSSLDisconnect, and results of setting keys and certificates,
// beside 0 (success; a peer that ended in order), errno values (ECONNREFUSED, ECONNRESET, ENOENT,
// ENOMEM …) and keelbase's codes.
enum CAWSSLReason : long {
  // The handshake.
  AW_SSL_ERROR_HANDSHAKE = 10101,       // the peer speaks no TLS, or breaks its rules
  AW_SSL_ERROR_HANDSHAKE_TIME = 10102,  // it took too long
  AW_SSL_ERROR_VERSION = 10103,         // no protocol version in common: TLS 1.2 is the oldest
  AW_SSL_ERROR_NO_COMMON_CIPHER = 10104,
  AW_SSL_ERROR_REFUSED = 10105,  // the peer ended it, or the connection, and says no more
  AW_SSL_ERROR_PEER_REFUSED_CERTIFICATE = 10106,  // ours, or that there was none

  // The peer's certificate.
  AW_SSL_ERROR_CERTIFICATE_EXPIRED = 10111,
  AW_SSL_ERROR_CERTIFICATE_NOT_YET_VALID = 10112,
  AW_SSL_ERROR_CERTIFICATE_NAME = 10113,  // it is for another name or address
  AW_SSL_ERROR_UNKNOWN_AUTHORITY = 10114,
  AW_SSL_ERROR_CERTIFICATE_MISSING = 10115,  // an acceptor asked for one
  AW_SSL_ERROR_CERTIFICATE_INVALID = 10116,  // anything else: purpose, signature, weak key …

  // The established connection.
  AW_SSL_ERROR_RECORD = 10121,  // garbage, or bytes that were changed on the way
  AW_SSL_ERROR_CUT = 10122,     // ended without saying so: what came may not be all

  // Our own key and certificates, also those of the authorities whom we are to trust.
  AW_SSL_ERROR_KEY_UNREADABLE = 10131,              // no private key in PEM form
  AW_SSL_ERROR_KEY_ENCRYPTED = 10132,               // nobody can be asked for its password
  AW_SSL_ERROR_KEY_MISMATCH = 10133,                // the key is not that of the certificate
  AW_SSL_ERROR_KEY_MISSING = 10134,                 // a certificate without a key
  AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE = 10135,  // no certificate in PEM form, or no usable one
  AW_SSL_ERROR_OWN_CERTIFICATE_MISSING = 10136,     // an acceptor needs one
};

// A text for people, of any reason or result that this library gives. Any thread.
SSLUTILS_API keelbase::CAWString DescribeSSLResult(long reason);

}  // namespace sslutils
