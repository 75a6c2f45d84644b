// ShmEndpoint.h - where the two sides of an address meet.
#pragma once

#include <string>

#include "fshmipc/CAWShmIPCAddr.h"
#include "keelbase/CAWString.h"
#include "keelbase/internal/TraceError.h"

namespace fshmipc {

// The path of the endpoint file; empty, with a trace line, without a system directory.
inline std::string EndpointFileOf(const keelbase::CAWString& systemPath,
                                  const CAWShmIPCAddr& address) {
  if (systemPath.empty()) {
    keelbase::internal::TraceLine(
        "no system directory for shared memory: call ZARNLibInit, or SetSystemPath, before");
    return {};
  }
  return systemPath + "/zarn/shmipc/" + std::to_string(address.GetFirst()) + "_" +
         std::to_string(address.GetSecond());
}

}  // namespace fshmipc
