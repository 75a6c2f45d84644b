// Traffic.h - what the channels of the test programs send, check and count.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string_view>

#include "Program.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWHash.h"

namespace e2e {

inline constexpr std::size_t kMaxPayload = 65523;

// What the messages of a program are for.
enum class Mode {
  echo,   // each goes back as it came
  count,  // each is counted
  load,   // both sides send numbered messages all the time and check those of the other
  flood,  // the same, as fast as they can
};

inline bool IsLoad(Mode mode) { return mode == Mode::load || mode == Mode::flood; }

inline Mode ParseMode(std::string_view text) {
  if (text == "echo") return Mode::echo;
  if (text == "load") return Mode::load;
  return text == "flood" ? Mode::flood : Mode::count;
}

struct Counts {
  std::uint64_t received = 0;
  std::uint64_t receivedBytes = 0;
  std::uint64_t sent = 0;
  std::uint64_t wrong = 0;
};

// A numbered message of random length: number (8 bytes), hash of the rest (4 bytes), random bytes.
// The type repeats the length and the tag the number, so that a wrong header shows as well.
class NumberedMessage {
 public:
  static constexpr std::size_t kHead = 12;

  NumberedMessage(std::uint64_t number, std::minstd_rand& random) : number_(number) {
    size_ = kHead + random() % 1000;
    if (random() % 50 == 0) size_ = kHead + random() % (kMaxPayload - kHead + 1);
    const std::size_t rest = size_ - kHead;
    std::memcpy(bytes_.data(), &number_, 8);
    std::memcpy(bytes_.data() + kHead, Noise().data() + random() % 1000, rest);
    const std::uint32_t hash = HashOf(bytes_.data(), rest);
    std::memcpy(bytes_.data() + 8, &hash, 4);
  }

  template <class Channel>
  keelbase::AWResult SendBy(Channel& channel) const {
    return channel.SendZARNMessage(static_cast<std::uint16_t>(size_),
                                   static_cast<std::uint32_t>(number_), bytes_.data(), size_);
  }

  static bool IsWhole(std::uint64_t expected, std::uint16_t type, std::uint32_t tag,
                      const char* data, std::size_t size) {
    if (size < kHead || type != static_cast<std::uint16_t>(size)) return false;
    std::uint64_t number = 0;
    std::uint32_t hash = 0;
    std::memcpy(&number, data, 8);
    std::memcpy(&hash, data + 8, 4);
    return number == expected && tag == static_cast<std::uint32_t>(expected) &&
           hash == HashOf(data, size - kHead);
  }

 private:
  static std::uint32_t HashOf(const char* data, std::size_t rest) {
    return keelbase::hash_bytes(data + kHead, rest, static_cast<std::uint32_t>(rest));
  }

  static const std::array<char, kMaxPayload + 1000>& Noise() {
    static const auto noise = [] {
      std::array<char, kMaxPayload + 1000> bytes;
      std::minstd_rand random(7);
      for (char& byte : bytes) byte = static_cast<char>(random());
      return bytes;
    }();
    return noise;
  }

  std::uint64_t number_;
  std::size_t size_;
  std::array<char, kMaxPayload> bytes_;
};

// The messages of one connection. Numbers start at 0 with each connection, on either side.
class Traffic {
 public:
  Traffic(Mode mode, Counts& counts) : mode_(mode), counts_(counts) {}

  void Restart() { nextSent_ = nextReceived_ = 0; }

  template <class Channel>
  void Received(Channel& channel, std::uint16_t type, std::uint32_t tag, const char* data,
                std::size_t size) {
    ++counts_.received;
    counts_.receivedBytes += size;
    if (mode_ == Mode::echo) {
      if (channel.SendZARNMessage(type, tag, data, size) == keelbase::AW_OK)
        ++counts_.sent;
      else
        Wrong("not_sent", size);
    }
    if (IsLoad(mode_) && !NumberedMessage::IsWhole(nextReceived_++, type, tag, data, size))
      Wrong("wrong", nextReceived_ - 1);
  }

  // Some more of the load, unless enough waits already.
  template <class Channel>
  void SendMore(Channel& channel, std::minstd_rand& random) {
    const int batch = mode_ == Mode::flood ? 2000 : 20;
    constexpr std::size_t kEnoughBytes = 256 * 1024;
    for (int i = 0; i < batch && channel.GetSendQueueLength() < kEnoughBytes; ++i) {
      if (NumberedMessage(nextSent_, random).SendBy(channel) != keelbase::AW_OK) return;
      ++nextSent_;
      ++counts_.sent;
    }
  }

 private:
  void Wrong(const char* what, std::uint64_t detail) {
    ++counts_.wrong;
    Event(what).With("detail", detail);
  }

  Mode mode_;
  Counts& counts_;
  std::uint64_t nextSent_ = 0;
  std::uint64_t nextReceived_ = 0;
};

}  // namespace e2e
