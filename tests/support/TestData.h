// TestData.h - the files of tests/data.
#pragma once

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace zarn::test {

inline std::string ReadTestData(const std::string& name) {
  std::ifstream file(std::string(ZARN_TEST_DATA_DIR) + "/" + name, std::ios::binary);
  if (!file) throw std::runtime_error("no test data " + name);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace zarn::test
