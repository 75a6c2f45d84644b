// FrameCodec.h - the message frame of the channels, as bytes.
//
//   offset 0  2 bytes  type      passed through
//          2  2        pdulen    length of the frame, header included: datasize + 12
//          4  4        tag       passed through
//          8  4        datasize  length of the payload
//         12  datasize payload
//
// Big-endian; no magic, version, checksum or padding.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zarn::utils {

inline constexpr std::size_t kFrameHeaderSize = 12;
inline constexpr std::size_t kMaxFrameSize = 65535;
inline constexpr std::size_t kMaxPayloadSize = kMaxFrameSize - kFrameHeaderSize;

using FrameHeader = std::array<char, kFrameHeaderSize>;

enum class FrameResult { kNeedMore, kMalformed, kFrame };

struct Frame {
  FrameResult result = FrameResult::kNeedMore;
  std::uint16_t type = 0;
  std::uint16_t pdulen = 0;
  std::uint32_t tag = 0;
  std::uint32_t datasize = 0;
  const char* payload = nullptr;  // into the bytes that were decoded; null when datasize is 0
};

// `datasize` is at most kMaxPayloadSize.
inline FrameHeader EncodeFrameHeader(std::uint16_t type, std::uint32_t tag, std::size_t datasize) {
  const std::uint16_t shorts[] = {htons(type),
                                  htons(static_cast<std::uint16_t>(datasize + kFrameHeaderSize))};
  const std::uint32_t longs[] = {htonl(tag), htonl(static_cast<std::uint32_t>(datasize))};
  FrameHeader header;
  std::memcpy(&header[0], shorts, sizeof shorts);
  std::memcpy(&header[4], longs, sizeof longs);
  return header;
}

inline std::uint16_t Read16(const char* from) {
  std::uint16_t value;
  std::memcpy(&value, from, sizeof value);
  return ntohs(value);
}

inline std::uint32_t Read32(const char* from) {
  std::uint32_t value;
  std::memcpy(&value, from, sizeof value);
  return ntohl(value);
}

// Looks at the frame that starts at `data`. kFrame: all of it is there. kMalformed: pdulen and
// datasize contradict each other; only pdulen, tag and datasize are set then.
inline Frame DecodeFrame(const char* data, std::size_t length) {
  Frame frame;
  if (length < kFrameHeaderSize) return frame;
  frame.pdulen = Read16(data + 2);
  frame.tag = Read32(data + 4);
  frame.datasize = Read32(data + 8);
  if (frame.pdulen > length) return frame;
  // 64 bits: a datasize near the type's end must not wrap into a match.
  if (frame.pdulen != std::uint64_t{frame.datasize} + kFrameHeaderSize) {
    frame.result = FrameResult::kMalformed;
    return frame;
  }
  frame.result = FrameResult::kFrame;
  frame.type = Read16(data);
  if (frame.datasize != 0) frame.payload = data + kFrameHeaderSize;
  return frame;
}

}  // namespace zarn::utils
