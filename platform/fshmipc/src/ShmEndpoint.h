// ShmEndpoint.h - where the two sides of an address meet.
#pragma once

#include <string>

#include "fshmipc/CAWShmIPCAddr.h"
#include "keelbase/CAWString.h"

namespace fshmipc {

// The path of the endpoint file; empty without a system directory.
inline std::string EndpointFileOf(const keelbase::CAWString& systemPath,
                                  const CAWShmIPCAddr& address) {
  if (systemPath.empty()) return {};
  return systemPath + "/zarn/shmipc/" + std::to_string(address.GetFirst()) + "_" +
         std::to_string(address.GetSecond());
}

}  // namespace fshmipc
