// FileDescriptor.h - owns one file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace keelbase::internal {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}  // below 0: none
  ~FileDescriptor() { Reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    Reset(std::exchange(other.descriptor_, -1));
    return *this;
  }

  int Get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

  int Release() { return std::exchange(descriptor_, -1); }
  void Reset(int descriptor = -1) {
    const int old = std::exchange(descriptor_, descriptor);
    if (old >= 0) ::close(old);
  }

 private:
  int descriptor_ = -1;
};

}  // namespace keelbase::internal
