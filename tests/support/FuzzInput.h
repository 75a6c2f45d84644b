// FuzzInput.h - the bytes that a fuzz target was given, taken piece by piece.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace zarn::test {

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

  bool IsEmpty() const { return left_ == 0; }
  std::uint8_t Byte() { return left_ == 0 ? 0 : (--left_, *data_++); }

  // A text whose length stands before it; shorter when there is no more.
  std::string Text() {
    const std::size_t length = std::min<std::size_t>(Byte(), left_);
    std::string text(reinterpret_cast<const char*>(data_), length);
    data_ += length;
    left_ -= length;
    return text;
  }

 private:
  const std::uint8_t* data_;
  std::size_t left_;
};

// A fresh directory in memory where there is one.
inline std::string MakeFuzzDirectory() {
  const std::string memory = "/dev/shm";
  const bool usable = std::filesystem::is_directory(memory);
  std::string path =
      (usable ? memory : std::filesystem::temp_directory_path().string()) + "/zarn-fuzz-XXXXXX";
  if (::mkdtemp(path.data()) == nullptr) std::abort();
  return path;
}

}  // namespace zarn::test
