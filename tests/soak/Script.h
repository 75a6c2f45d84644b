// Script.h - what one side of a connection sends: every size and every byte follows from the seed,
// the connection and the number of the message, so that the other side can tell what must come.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string_view>
#include <vector>

namespace soak {

inline constexpr std::size_t kMaxPayload = 65523;

// Who speaks on a connection. A process has an incarnation of its own and counts its connections,
// so a later connection always has a later generation, also after a restart.
struct Speaker {
  std::uint32_t client = 0;  // on both sides the client's number
  std::uint32_t incarnation = 0;
  std::uint32_t connection = 0;
  std::uint32_t isServer = 0;

  std::uint64_t GetGeneration() const { return (std::uint64_t{incarnation} << 32) | connection; }
};

class Script {
 public:
  explicit Script(std::uint64_t seed, const Speaker& speaker = {})
      : speaker_(speaker),
        key_(Mix(Mix(seed + speaker.client * 2 + speaker.isServer) + speaker.GetGeneration())) {}

  const Speaker& GetSpeaker() const { return speaker_; }

  // The first message says who speaks; the others are noise, from none to as much as can be sent.
  std::string_view GetMessage(std::uint64_t number) const {
    if (number == 0) return {reinterpret_cast<const char*>(&speaker_), sizeof speaker_};
    const std::uint64_t random = Mix(key_ + number);
    const std::size_t start = Mix(random) % kNoise;
    return {GetNoise().data() + start, ChooseSize(random)};
  }

  static bool ReadSpeaker(std::string_view message, Speaker& speaker) {
    if (message.size() != sizeof speaker) return false;
    std::memcpy(&speaker, message.data(), sizeof speaker);
    return true;
  }

 private:
  static constexpr std::size_t kNoise = 1 << 20;

  // Mostly small, a few of any size, now and then the extremes.
  static std::size_t ChooseSize(std::uint64_t random) {
    const std::uint64_t kind = random % 1000;
    const auto share = static_cast<std::size_t>(random >> 32);
    if (kind < 20) return 0;
    if (kind < 25) return kMaxPayload;
    if (kind < 50) return share % (kMaxPayload + 1);
    return share % (kind < 200 ? 4096 : 200);
  }

  // Spreads every bit of `value` over all bits of the result (SplitMix64).
  static std::uint64_t Mix(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
  }

  // Where a message starts in it differs from one to the next, so that no other bytes pass for it.
  static const std::vector<char>& GetNoise() {
    static const std::vector<char> noise = [] {
      std::vector<char> bytes(kNoise + kMaxPayload);
      std::minstd_rand random(7);
      for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
      return bytes;
    }();
    return noise;
  }

  Speaker speaker_;
  std::uint64_t key_;
};

}  // namespace soak
