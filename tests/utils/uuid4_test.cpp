// uuid4_test.cpp - which texts follow from which random bytes: fopen is this program's own and
// opens another file in place of /dev/urandom.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "TempRoot.h"
#include "zarn/utils/zarnutils.h"

namespace {

constexpr const char* kRandomFile = "/dev/urandom";
const char* randomFile = kRandomFile;

}  // namespace

extern "C" std::FILE* fopen(const char* path, const char* mode) {
  return ::fopen64(std::strcmp(path, kRandomFile) == 0 ? randomFile : path, mode);
}

namespace zarn::utils {
namespace {

class Uuid4 : public testing::Test {
 protected:
  Uuid4() { randomFile = path_.c_str(); }
  ~Uuid4() override { randomFile = kRandomFile; }

  void HaveRandomBytes(const std::string& bytes) const { std::ofstream(path_) << bytes; }

  const test::TempDir dir_;
  const std::string path_ = dir_.GetPath() + "/random";
};

// All thirteen bytes, with a dot for each zero.
std::string Generate() {
  std::string text(13, '#');
  uuid4_generate(text.data());
  std::replace(text.begin(), text.end(), '\0', '.');
  return text;
}

// What is expected was computed by another program, from the definition of xorshift128+.
TEST_F(Uuid4, TextsFollowFromTheRandomBytes) {
  HaveRandomBytes("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10");
  ASSERT_EQ(uuid4_init(), 0);
  EXPECT_EQ(Generate(), "18.541.25618.");
  EXPECT_EQ(Generate(), "459363.72..9.");
  EXPECT_EQ(Generate(), "..50.71632.7.");
  EXPECT_EQ(Generate(), "1.99.16.4903.");
  EXPECT_EQ(Generate(), "87.342050.65.");
}

TEST_F(Uuid4, LargeNumbersOverflowAsTheyShould) {
  HaveRandomBytes(
      std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16));
  ASSERT_EQ(uuid4_init(), 0);
  EXPECT_EQ(Generate(), "41.81.75..73.");
  EXPECT_EQ(Generate(), "6.6.189.9290.");
  EXPECT_EQ(Generate(), "9.4098.69..5.");
  EXPECT_EQ(Generate(), "9.929..7..70.");
}

TEST_F(Uuid4, WithoutRandomBytesInitFails) { EXPECT_EQ(uuid4_init(), -1); }

TEST_F(Uuid4, WithOneByteTooFewInitFails) {
  HaveRandomBytes(std::string(15, 'x'));
  EXPECT_EQ(uuid4_init(), -1);
  HaveRandomBytes(std::string(16, 'x'));
  EXPECT_EQ(uuid4_init(), 0);
}

}  // namespace
}  // namespace zarn::utils
