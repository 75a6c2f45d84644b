// FrameFilter_test.cpp - which contents of packets are let through to ngtcp2.
#include "FrameFilter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ptcp {
namespace {

using Frame = std::vector<std::uint8_t>;

struct NamedFrame {
  const char* name;
  Frame bytes;
};

// `head`, then `length` bytes of any content.
Frame WithContent(Frame head, std::size_t length) {
  head.insert(head.end(), length, 0xFF);
  return head;
}

// Those whose end is in themselves.
std::vector<NamedFrame> DelimitedFrames() {
  return {
      {"padding", {0x00}},
      {"ping", {0x01}},
      {"acknowledgement of one range", {0x02, 9, 1, 0, 3}},
      {"acknowledgement of three ranges", {0x02, 9, 1, 2, 3, 0, 1, 0, 1}},
      {"acknowledgement with counts", {0x03, 9, 1, 1, 3, 0, 1, 5, 6, 7}},
      {"reset of a stream", {0x04, 0, 1, 2}},
      {"request to stop", {0x05, 0, 1}},
      {"handshake bytes", WithContent({0x06, 0, 5}, 5)},
      {"stream bytes with a length", WithContent({0x0a, 0, 5}, 5)},
      {"stream bytes with an offset and a length", WithContent({0x0e, 0, 0x41, 0x00, 5}, 5)},
      {"last stream bytes", {0x0f, 0, 7, 0}},
      {"limit of the connection", {0x10, 0x80, 0, 0, 1}},
      {"limit of a stream", {0x11, 0, 9}},
      {"limit of streams both ways", {0x12, 1}},
      {"limit of streams one way", {0x13, 1}},
      {"connection blocked", {0x14, 1}},
      {"stream blocked", {0x15, 0, 1}},
      {"both ways blocked", {0x16, 1}},
      {"one way blocked", {0x17, 1}},
      {"new id", WithContent({0x18, 1, 0, 8}, 8 + 16)},
      {"id given back", {0x19, 1}},
      {"question to a path", WithContent({0x1a}, 8)},
      {"answer to it", WithContent({0x1b}, 8)},
      {"end for a reason of the protocol", WithContent({0x1c, 10, 0, 3}, 3)},
      {"end for a reason of the user", WithContent({0x1d, 10, 3}, 3)},
      {"handshake done", {0x1e}},
  };
}

TEST(FrameFilter, EveryFrameThatOursSendPasses) {
  EXPECT_TRUE(AreOurFrames({}));
  for (const NamedFrame& frame : DelimitedFrames())
    EXPECT_TRUE(AreOurFrames(frame.bytes)) << frame.name;
}

TEST(FrameFilter, FramesPassOneBehindTheOther) {
  Frame all;
  for (const NamedFrame& frame : DelimitedFrames())
    all.insert(all.end(), frame.bytes.begin(), frame.bytes.end());
  EXPECT_TRUE(AreOurFrames(all));
}

TEST(FrameFilter, FrameThatIsCutDoesNotPass) {
  for (const NamedFrame& frame : DelimitedFrames()) {
    for (std::size_t length = 1; length < frame.bytes.size(); ++length)
      EXPECT_FALSE(AreOurFrames(Bytes(frame.bytes).first(length))) << frame.name << ": " << length;
  }
}

TEST(FrameFilter, StreamBytesWithoutALengthGoToTheEnd) {
  EXPECT_TRUE(AreOurFrames(WithContent({0x08, 0}, 100)));
  EXPECT_TRUE(AreOurFrames(WithContent({0x0d, 0, 7}, 100)));
  EXPECT_FALSE(AreOurFrames(Frame{0x08}));
}

TEST(FrameFilter, LengthBeyondThePacketDoesNotPass) {
  EXPECT_FALSE(AreOurFrames(Frame{0x06, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1}));
  EXPECT_FALSE(AreOurFrames(Frame{0x0a, 0, 2, 1}));
}

TEST(FrameFilter, MoreRangesThanThereAreBytesDoNotPassAndTakeNoTime) {
  EXPECT_FALSE(
      AreOurFrames(Frame{0x02, 9, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 3, 0, 1}));
}

TEST(FrameFilter, IdThatWithdrawsOthersDoesNotPass) {
  EXPECT_FALSE(AreOurFrames(WithContent({0x18, 2, 1, 8}, 8 + 16)));
}

TEST(FrameFilter, TypesThatOursDoNotSendDoNotPass) {
  EXPECT_FALSE(AreOurFrames(WithContent({0x07, 3}, 3)));  // a token for later
  for (int type = 0x1f; type < 0x40; ++type)
    EXPECT_FALSE(AreOurFrames(Frame{static_cast<std::uint8_t>(type), 0, 0})) << type;
  EXPECT_FALSE(AreOurFrames(Frame{0x40, 0x30, 0}));
  EXPECT_FALSE(AreOurFrames(Frame{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(FrameFilter, OneBadFrameBehindGoodOnesIsEnough) {
  EXPECT_FALSE(AreOurFrames(Frame{0x01, 0x00, 0x00, 0x1f}));
}

}  // namespace
}  // namespace ptcp
