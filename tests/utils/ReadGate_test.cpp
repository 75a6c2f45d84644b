// ReadGate_test.cpp - when a stream's transport is told to read less, or not at all.
#include "zarn/utils/detail/ReadGate.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "keelbase/CAWError.h"
#include "keelbase/CAWTransport.h"

namespace zarn::utils::detail {
namespace {

struct Transport {
  std::vector<bool> stops;
  std::vector<std::uint32_t> sizes;
  keelbase::AWResult SetOption(int code, const void* value) {
    if (code == keelbase::AW_OPT_STOP_READING) stops.push_back(*static_cast<const bool*>(value));
    if (code == keelbase::AW_OPT_READ_SIZE)
      sizes.push_back(*static_cast<const std::uint32_t*>(value));
    return keelbase::AW_OK;
  }
};

TEST(ReadGate, LittleLeftOverChangesNothing) {
  ReadGate gate;
  Transport transport;
  for (const std::size_t left : {0U, 1U, 4096U, 16384U}) gate.Apply(&transport, left);
  EXPECT_TRUE(transport.sizes.empty());
  EXPECT_TRUE(transport.stops.empty());
}

TEST(ReadGate, BehindTheStartOfALongFrameNoMoreIsReadThanFitsWithItIntoOneRead) {
  ReadGate gate;
  Transport transport;
  gate.Apply(&transport, 40000);
  gate.Apply(&transport, 40000);
  gate.Apply(&transport, 0);
  EXPECT_EQ(transport.sizes, (std::vector<std::uint32_t>{25535, 65535}));
}

TEST(ReadGate, WhereAReadCostsLittleItFitsAlsoBehindAShortRest) {
  ReadGate gate(ReadGate::kMemoryRead);
  Transport transport;
  for (const std::size_t left : {64U, 523U, 65000U, 65535U}) gate.Apply(&transport, left);
  EXPECT_EQ(transport.sizes, (std::vector<std::uint32_t>{65012, 535, 65535}));
}

TEST(ReadGate, WhenAlmostAllOfAFrameIsThereTheReadIsFullSized) {
  ReadGate gate;
  Transport transport;
  gate.Apply(&transport, 60000);
  gate.Apply(&transport, 200000);
  EXPECT_TRUE(transport.sizes.empty());
}

TEST(ReadGate, MoreThanTheLimitShutsAndLessOpens) {
  ReadGate gate;
  gate.SetLimit(1000);
  Transport transport;
  for (const std::size_t left : {1000U, 1001U, 5000U, 1000U}) gate.Apply(&transport, left);
  EXPECT_EQ(transport.stops, (std::vector<bool>{true, false}));
}

TEST(ReadGate, StopLastsUntilTheNextTransport) {
  ReadGate gate;
  Transport first, second;
  gate.Stop();
  gate.Apply(&first, 0);
  gate.Apply(&first, 40000);
  EXPECT_EQ(first.stops, std::vector<bool>{true});
  gate.Reset();
  gate.Apply(&second, 0);
  EXPECT_FALSE(gate.IsStopped());
  EXPECT_TRUE(second.stops.empty() && second.sizes.empty());
}

TEST(ReadGate, WithoutATransportNothingIsTold) {
  ReadGate gate;
  gate.Apply<Transport>(nullptr, 40000);
  Transport transport;
  gate.Apply(&transport, 40000);
  EXPECT_EQ(transport.sizes, std::vector<std::uint32_t>{25535});
}

}  // namespace
}  // namespace zarn::utils::detail
