// Link.cpp - the table of schemes.
#include "Link.h"

#include "IpcLink.h"
#include "PtcpLink.h"
#include "ShmLink.h"
#include "TcpLink.h"
#include "TlsLink.h"
#include "sslutils/CAWSSLError.h"

namespace zarn::tool {

namespace {
const Scheme* const kSchemes[] = {&kIpcScheme, &kShmScheme,  &kTcpScheme,
                                  &kTlsScheme, &kPtcpScheme, &kPtlsScheme};
}  // namespace

const Scheme* FindScheme(std::string_view name) {
  for (const Scheme* scheme : kSchemes)
    if (scheme->name == name) return scheme;
  return nullptr;
}

std::string ListSchemes() {
  std::string list;
  for (const Scheme* scheme : kSchemes) list.append(list.empty() ? "" : ", ").append(scheme->form);
  return list;
}

std::string DescribeReason(long reason) { return sslutils::DescribeSSLResult(reason); }

}  // namespace zarn::tool
