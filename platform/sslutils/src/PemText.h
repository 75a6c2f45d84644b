// PemText.h - keys and certificates from the texts that users give.
#pragma once

#include <string>

#include "OpenSslPointers.h"
#include "keelbase/CAWError.h"

namespace sslutils::internal {

// A text is PEM when it contains "-----BEGIN", else the path of a regular file of at most 1 MiB.
// 0, or a reason; `out` is untouched then.
keelbase::AWResult ReadPem(const std::string& text, std::string& out);

// Both from PEM. Never asks for a password.
keelbase::AWResult ParseKey(const std::string& pem, KeyPtr& out);
keelbase::AWResult ParseCertificates(const std::string& pem, Certificates& out);  // at least one

}  // namespace sslutils::internal
