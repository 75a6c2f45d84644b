// CAWMessageBlock_model_test.cpp - random operations on chains, compared with plain byte strings.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "MessageBlockModel.h"

namespace keelbase {
namespace {

std::vector<std::uint8_t> Script(std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> script(600);
  for (std::uint8_t& byte : script) byte = static_cast<std::uint8_t>(random());
  return script;
}

TEST(CAWMessageBlockModel, RandomOperationsAgreeWithByteStrings) {
  for (std::uint32_t seed = 0; seed < 500; ++seed) {
    const std::vector<std::uint8_t> script = Script(seed);
    EXPECT_NO_THROW(zarn::test::MessageBlockModel(script.data(), script.size()).Run())
        << "seed " << seed;
  }
}

}  // namespace
}  // namespace keelbase
