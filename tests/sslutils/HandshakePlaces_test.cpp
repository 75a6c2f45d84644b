// HandshakePlaces_test.cpp - who has to go when there are too many, of one host and in all.
#include "sslutils/internal/HandshakePlaces.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace sslutils::internal {
namespace {

class HandshakePlacesTest : public ::testing::Test {
 protected:
  HandshakePlacesTest() { places.SetLimit(2, 1000); }

  // Who goes for it, if anybody.
  std::string Take(const char* host, const std::string& name) {
    const auto taken = places.Take({host, ++port}, name);
    const auto surplus = places.FindSurplus(taken);
    return surplus == places.End() ? std::string() : places.GiveUp(surplus);
  }

  HandshakePlaces<std::string> places;
  std::uint16_t port = 0;
};

TEST_F(HandshakePlacesTest, AsManyAsTheLimitFitIn) {
  EXPECT_EQ(Take("127.0.0.1", "a"), "");
  EXPECT_EQ(Take("127.0.0.1", "b"), "");
}

TEST_F(HandshakePlacesTest, OldestOfTheHostGoesWhateverItsPortAndNobodyElse) {
  Take("127.0.0.2", "elsewhere");
  Take("127.0.0.1", "a");
  Take("127.0.0.1", "b");
  EXPECT_EQ(Take("127.0.0.1", "c"), "a");
  EXPECT_EQ(Take("127.0.0.1", "d"), "b");
  EXPECT_EQ(Take("127.0.0.2", "also elsewhere"), "");
}

TEST_F(HandshakePlacesTest, OldestOfAllGoesWhenFourHostsHaveTakenAllPlaces) {
  for (const char* host : {"127.0.0.1", "127.0.0.2", "127.0.0.3", "127.0.0.4"}) {
    EXPECT_EQ(Take(host, std::string("first of ") + host), "");
    EXPECT_EQ(Take(host, std::string("second of ") + host), "");
  }
  EXPECT_EQ(Take("127.0.0.5", "newcomer"), "first of 127.0.0.1");
  EXPECT_EQ(Take("127.0.0.6", "another"), "second of 127.0.0.1");
}

TEST_F(HandshakePlacesTest, OldestOfAllGoesWhenThereAreFewPlacesInAll) {
  places.SetLimit(2, 3);
  Take("127.0.0.1", "a");
  Take("127.0.0.2", "b");
  EXPECT_EQ(Take("127.0.0.2", "c"), "");
  EXPECT_EQ(Take("127.0.0.2", "d"), "b");
  EXPECT_EQ(Take("127.0.0.3", "e"), "a");
}

TEST_F(HandshakePlacesTest, OldestOfAllGoesWhenThereAreFewerPlacesInAllThanForOneHost) {
  places.SetLimit(2, 1);
  EXPECT_EQ(Take("127.0.0.1", "a"), "");
  EXPECT_EQ(Take("127.0.0.1", "b"), "a");
  EXPECT_EQ(Take("127.0.0.2", "c"), "b");
}

TEST_F(HandshakePlacesTest, PlaceThatIsGivenUpIsFreeAgain) {
  const auto place = places.Take({"127.0.0.1", 7}, "a");
  Take("127.0.0.1", "b");
  EXPECT_EQ(places.GiveUp(place), "a");
  EXPECT_EQ(Take("127.0.0.1", "c"), "");
  EXPECT_EQ(Take("127.0.0.1", "d"), "b");
}

}  // namespace
}  // namespace sslutils::internal
