// RetryTokens_test.cpp - a token is good for the client, the id and the time that it was made for.
#include "RetryTokens.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace ptcp {
namespace {

constexpr Time kMade = 1'000'000'000;

ConnectionId IdOf(std::uint8_t byte, std::size_t size) {
  std::array<std::uint8_t, ConnectionId::kMaxSize> bytes;
  bytes.fill(byte);
  return ConnectionId(Bytes(bytes).first(size));
}

class RetryTokensTest : public ::testing::Test {
 protected:
  bool IsGood(Bytes bytes, const keelbase::CAWInetAddr& from, const ConnectionId& id, Time now) {
    const auto found = tokens.Check(bytes, from, id, now);
    if (found) {
      EXPECT_EQ(*found, original);
    }
    return found.has_value();
  }

  const std::array<std::uint8_t, 32> secret{7};
  const RetryTokens tokens{PacketKey(secret)};
  const keelbase::CAWInetAddr client{"192.0.2.1", 4000};
  const ConnectionId original = IdOf(1, 18);
  const ConnectionId again = IdOf(2, 16);
  const std::vector<std::uint8_t> token = tokens.Make(client, original, again, kMade);
};

TEST_F(RetryTokensTest, TokenGivesTheFirstIdBackUntilItIsTooOld) {
  EXPECT_TRUE(IsGood(token, client, again, kMade));
  EXPECT_TRUE(IsGood(token, client, again, kMade + RetryTokens::kValidity));
  EXPECT_FALSE(IsGood(token, client, again, kMade + RetryTokens::kValidity + 1));
}

TEST_F(RetryTokensTest, TokenOfTheFutureIsRefused) {
  EXPECT_FALSE(IsGood(token, client, again, kMade - 1));
}

TEST_F(RetryTokensTest, TokenIsForOneAddressPortAndIdOnly) {
  EXPECT_FALSE(IsGood(token, {"192.0.2.2", 4000}, again, kMade));
  EXPECT_FALSE(IsGood(token, {"192.0.2.1", 4001}, again, kMade));
  EXPECT_FALSE(IsGood(token, client, IdOf(3, 16), kMade));
  EXPECT_FALSE(IsGood(token, client, IdOf(2, 15), kMade));
}

TEST_F(RetryTokensTest, TokenOfAnotherAcceptorIsRefused) {
  const std::array<std::uint8_t, 32> otherSecret{8};
  EXPECT_FALSE(RetryTokens(PacketKey(otherSecret)).Check(token, client, again, kMade));
}

TEST_F(RetryTokensTest, EachChangedBitIsNoticed) {
  for (std::size_t bit = 0; bit < 8 * token.size(); ++bit) {
    auto changed = token;
    changed[bit / 8] = static_cast<std::uint8_t>(changed[bit / 8] ^ (1U << bit % 8));
    EXPECT_FALSE(IsGood(changed, client, again, kMade)) << bit;
  }
}

TEST_F(RetryTokensTest, LengthsThatNoTokenHasAreRefused) {
  for (const std::size_t length : {std::size_t{0}, std::size_t{1}, token.size() - 1}) {
    EXPECT_FALSE(IsGood(Bytes(token).first(length), client, again, kMade));
  }
  auto longer = token;
  longer.resize(200);
  EXPECT_FALSE(IsGood(longer, client, again, kMade));
}

}  // namespace
}  // namespace ptcp
