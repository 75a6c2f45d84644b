// FrameCodec_test.cpp - the message frame as bytes, against bytes that are written out by hand.
#include "FrameCodec.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "Frames.h"

namespace zarn::test {
namespace {

using utils::DecodeFrame;
using utils::EncodeFrameHeader;
using utils::FrameResult;

utils::Frame Decode(const std::string& bytes) { return DecodeFrame(bytes.data(), bytes.size()); }

std::string Encode(std::uint16_t type, std::uint32_t tag, std::size_t size) {
  const utils::FrameHeader header = EncodeFrameHeader(type, tag, size);
  return {header.data(), header.size()};
}

TEST(FrameCodec, HeaderIsBigEndian) {
  EXPECT_EQ(Encode(0x0102, 0x03040506, 0x0708),
            std::string("\x01\x02\x07\x14\x03\x04\x05\x06\x00\x00\x07\x08", 12));
}

TEST(FrameCodec, ExtremesAreEncoded) {
  EXPECT_EQ(Encode(0, 0, 0), std::string("\0\0\0\x0c\0\0\0\0\0\0\0\0", 12));
  EXPECT_EQ(Encode(0xFFFF, 0xFFFFFFFF, 65523), Header(0xFFFF, 65535, 0xFFFFFFFF, 65523));
}

TEST(FrameCodec, WhatWasEncodedIsDecoded) {
  for (const std::size_t size : {0U, 1U, 255U, 256U, 65523U}) {
    const std::string bytes = Encode(0xABCD, 0x80000001, size) + std::string(size, 'p');
    const utils::Frame frame = Decode(bytes);
    EXPECT_EQ(frame.result, FrameResult::kFrame);
    EXPECT_EQ(frame.type, 0xABCD);
    EXPECT_EQ(frame.tag, 0x80000001U);
    EXPECT_EQ(frame.pdulen, size + 12);
    EXPECT_EQ(frame.datasize, size);
    EXPECT_EQ(frame.payload, size == 0 ? nullptr : bytes.data() + 12);
  }
}

TEST(FrameCodec, BytesBehindTheFrameAreNotLookedAt) {
  const utils::Frame frame = Decode(Frame(1, 2, "abc") + "\xFF\xFF\xFF");
  EXPECT_EQ(frame.result, FrameResult::kFrame);
  EXPECT_EQ(frame.pdulen, 15);
}

TEST(FrameCodec, EveryCutOfAFrameNeedsMore) {
  const std::string bytes = Frame(1, 2, "abcdef");
  for (std::size_t length = 0; length < bytes.size(); ++length)
    EXPECT_EQ(Decode(bytes.substr(0, length)).result, FrameResult::kNeedMore) << length;
}

TEST(FrameCodec, NoBytesNeedMore) {
  EXPECT_EQ(DecodeFrame(nullptr, 0).result, FrameResult::kNeedMore);
}

TEST(FrameCodec, LengthThatIsNotThereYetIsNotJudged) {
  EXPECT_EQ(Decode(Header(1, 13, 2, 99)).result, FrameResult::kNeedMore);
  EXPECT_EQ(Decode(Header(1, 13, 2, 99) + "x").result, FrameResult::kMalformed);
}

TEST(FrameCodec, LengthsThatDisagreeAreMalformedAndReported) {
  const utils::Frame frame = Decode(Header(1, 20, 2, 4) + std::string(8, 'x'));
  EXPECT_EQ(frame.result, FrameResult::kMalformed);
  EXPECT_EQ(frame.pdulen, 20);
  EXPECT_EQ(frame.datasize, 4U);
}

TEST(FrameCodec, PduLengthBelowTheHeaderIsMalformed) {
  for (std::uint16_t length = 0; length < 12; ++length)
    EXPECT_EQ(Decode(Header(1, length, 2, 0)).result, FrameResult::kMalformed) << length;
}

TEST(FrameCodec, DataSizeThatWouldWrapIsMalformed) {
  for (std::uint32_t below = 1; below <= 12; ++below) {
    const auto length = static_cast<std::uint16_t>(12 - below);
    EXPECT_EQ(Decode(Header(1, length, 2, 0U - below)).result, FrameResult::kMalformed) << below;
  }
  // Agrees in the low 16 bits only.
  EXPECT_EQ(Decode(Header(1, 16, 2, 0x00010004) + "data").result, FrameResult::kMalformed);
}

// The same question asked of numbers alone, for every pdulen and the datasizes around each limit.
TEST(FrameCodec, FrameIsAcceptedExactlyWhenItsNumbersAgree) {
  const std::string rest(70000, 'r');
  std::string bytes = Header(0, 0, 0, 0) + rest;
  for (std::uint32_t length = 0; length <= 65535;
       length += length < 64 || length > 65470 ? 1 : 97) {
    for (const std::uint32_t size : {0U, 1U, length - 13, length - 12, length - 11, 65523U, 65524U,
                                     65536U + length - 12, 0xFFFFFFFFU}) {
      bytes.replace(0, 12, Header(1, static_cast<std::uint16_t>(length), 2, size));
      const bool agree = std::uint64_t{length} == std::uint64_t{size} + 12;
      ASSERT_EQ(Decode(bytes).result, agree ? FrameResult::kFrame : FrameResult::kMalformed)
          << length << " " << size;
    }
  }
}

}  // namespace
}  // namespace zarn::test
