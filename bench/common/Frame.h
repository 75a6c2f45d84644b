// Frame.h - messages on a byte stream: a 12-byte header and the message, many to a buffer.
#pragma once

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace bench {

inline constexpr std::size_t kHeaderSize = 12;
inline constexpr std::size_t kBatchSize = 65536;  // what one system call moves at most

struct Header {
  std::uint16_t type;  // all big-endian
  std::uint16_t frameSize;
  std::uint32_t tag;
  std::uint32_t size;
};
static_assert(sizeof(Header) == kHeaderSize);

inline Header MakeHeader(std::size_t size) {
  return {htobe16(1), htobe16(static_cast<std::uint16_t>(size + kHeaderSize)), htobe32(2),
          htobe32(static_cast<std::uint32_t>(size))};
}

// Frames to be written.
class SendBatch {
 public:
  SendBatch() : bytes_(kBatchSize) {}

  bool HasRoom(std::size_t size) const { return end_ + kHeaderSize + size <= bytes_.size(); }
  void Add(const char* message, std::size_t size) {
    const Header header = MakeHeader(size);
    std::memcpy(&bytes_[end_], &header, kHeaderSize);
    std::memcpy(&bytes_[end_ + kHeaderSize], message, size);
    end_ += kHeaderSize + size;
  }

  bool IsEmpty() const { return begin_ == end_; }
  const char* Data() const { return &bytes_[begin_]; }
  std::size_t Size() const { return end_ - begin_; }
  void Consume(std::size_t count) {
    begin_ += count;
    if (begin_ == end_) begin_ = end_ = 0;
  }

 private:
  std::vector<char> bytes_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// Bytes that were read, parsed in place.
class ReceiveBuffer {
 public:
  ReceiveBuffer() : bytes_(2 * kBatchSize) {}

  char* WritePtr() { return &bytes_[end_]; }
  std::size_t Room() const { return kBatchSize; }

  // After `count` bytes were read: calls take(message, length) for each whole one, as long as it
  // returns true. False when it did not.
  template <class Take>
  bool Added(std::size_t count, Take take) {
    end_ += count;
    std::size_t at = 0;
    bool go = true;
    while (go && end_ - at >= kHeaderSize) {
      Header header;
      std::memcpy(&header, &bytes_[at], kHeaderSize);
      const std::size_t size = be32toh(header.size);
      if (end_ - at < kHeaderSize + size) break;
      go = take(&bytes_[at + kHeaderSize], size);
      at += kHeaderSize + size;
    }
    std::memmove(bytes_.data(), &bytes_[at], end_ - at);
    end_ -= at;
    return go;
  }

 private:
  std::vector<char> bytes_;
  std::size_t end_ = 0;
};

}  // namespace bench
