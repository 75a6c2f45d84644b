// StoredSize.h - finds where an object keeps a number that it never gives back.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace zarn::test {

// Sizes that are kept and nothing more: only the object's own bytes show them. `first` is what it
// holds at first.
template <class Stream>
class StoredSize {
 public:
  template <class Set>
  StoredSize(const Stream& stream, Set set, std::uint32_t first) : stream_(stream) {
    const auto before = Words();
    set(kMark);
    const auto after = Words();
    for (std::size_t i = 0; i < before.size(); ++i) {
      if (before[i] == after[i]) continue;
      EXPECT_EQ(before[i], first);
      EXPECT_EQ(after[i], kMark);
      at_ = i;
      ++changes_;
    }
    EXPECT_EQ(changes_, 1);
  }
  std::uint32_t Get() const { return Words().at(at_); }

 private:
  static constexpr std::uint32_t kMark = 100;

  std::vector<std::uint32_t> Words() const {
    std::vector<std::uint32_t> words(sizeof stream_ / sizeof(std::uint32_t));
    std::memcpy(words.data(), static_cast<const void*>(&stream_), sizeof stream_);
    return words;
  }

  const Stream& stream_;
  std::size_t at_ = 0;
  int changes_ = 0;
};

}  // namespace zarn::test
