// CAWError_test.cpp - result codes: their values and their texts.
#include "keelbase/CAWError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <set>
#include <type_traits>

namespace keelbase {
namespace {

TEST(CAWError, CodesHaveTheirFixedValues) {
  static_assert(std::is_same_v<AWResult, std::uint32_t>);
  EXPECT_EQ(AW_OK, 0U);
  EXPECT_EQ(AW_ERROR_FAILURE, 10001U);
  EXPECT_EQ(AW_ERROR_NOT_INITIALIZED, 10002U);
  EXPECT_EQ(AW_ERROR_NOT_FOUND, 10011U);
  EXPECT_EQ(AW_ERROR_NOT_AVAILABLE, 10012U);
  EXPECT_EQ(AW_ERROR_PARTIAL_DATA, 10013U);
}

TEST(CAWError, EachCodeHasATextOfItsOwn) {
  std::set<CAWString> texts;
  for (long code : {0L, 10001L, 10002L, 10011L, 10012L, 10013L}) {
    const CAWString text = DescribeResult(code);
    EXPECT_FALSE(text.empty()) << code;
    EXPECT_EQ(text.find("Code "), CAWString::npos) << code;
    EXPECT_TRUE(texts.insert(text).second) << text;
  }
}

TEST(CAWError, ErrnoValuesHaveTheSystemsText) {
  EXPECT_EQ(DescribeResult(ECONNREFUSED), "Connection refused");
  EXPECT_EQ(DescribeResult(ENOENT), "No such file or directory");
}

TEST(CAWError, OtherNumbersAreShownAsNumbers) {
  EXPECT_EQ(DescribeResult(-5), "Code -5");
  EXPECT_EQ(DescribeResult(10003), "Code 10003");
  EXPECT_EQ(DescribeResult(LONG_MAX), "Code " + std::to_string(LONG_MAX));
  EXPECT_EQ(DescribeResult(LONG_MIN), "Code " + std::to_string(LONG_MIN));
  EXPECT_EQ(DescribeResult((1L << 32) + ECONNREFUSED), "Code 4294967407");
}

}  // namespace
}  // namespace keelbase
