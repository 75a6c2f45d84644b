// Frames.h - framework messages written out byte by byte, independently of the library's own codec.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zarn::test {

inline void PutBigEndian(std::string& out, std::uint64_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
    out += static_cast<char>(static_cast<unsigned char>(value >> shift));
}

// Any header, also one that is wrong.
inline std::string Header(std::uint16_t type, std::uint16_t pduLength, std::uint32_t tag,
                          std::uint32_t dataSize) {
  std::string out;
  PutBigEndian(out, type, 2);
  PutBigEndian(out, pduLength, 2);
  PutBigEndian(out, tag, 4);
  PutBigEndian(out, dataSize, 4);
  return out;
}

inline std::string Frame(std::uint16_t type, std::uint32_t tag, const std::string& payload) {
  return Header(type, static_cast<std::uint16_t>(payload.size() + 12), tag,
                static_cast<std::uint32_t>(payload.size())) +
         payload;
}

// One message as a channel's owner sees it.
struct Message {
  std::uint16_t type;
  std::uint32_t tag;
  std::string payload;
  bool payloadWasNull;
  const char* address;

  friend bool operator==(const Message& a, const Message& b) {
    return a.type == b.type && a.tag == b.tag && a.payload == b.payload;
  }
};

inline std::vector<std::string> Payloads(const std::vector<Message>& messages) {
  std::vector<std::string> out;
  for (const auto& message : messages) out.push_back(message.payload);
  return out;
}

}  // namespace zarn::test
