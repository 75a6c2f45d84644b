// TcpPort.h - how the connecting process learns at which port the other one listens.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

#include "Bench.h"

namespace bench {

inline void WritePort(const std::string& dir, std::uint16_t port) {
  std::ofstream(dir + "/port") << port;
}

inline std::uint16_t ReadPort(const std::string& dir) {
  std::uint16_t port = 0;
  if (!(std::ifstream(dir + "/port") >> port)) Fail("no port");
  return port;
}

}  // namespace bench
