// CAWIPCAddr.h - the address of a local IPC endpoint: the path of its file.
#pragma once

#include <utility>

#include "keelbase/CAWString.h"

namespace keelbase {

// A value. Addresses are equal when their texts are: two spellings of one path differ. An empty
// path stands for no address.
class CAWIPCAddr {
 public:
  CAWIPCAddr() = default;
  explicit CAWIPCAddr(CAWString path) : path_(std::move(path)) {}

  const CAWString& GetPath() const { return path_; }

  friend bool operator==(const CAWIPCAddr& a, const CAWIPCAddr& b) { return a.path_ == b.path_; }
  friend bool operator!=(const CAWIPCAddr& a, const CAWIPCAddr& b) { return a.path_ != b.path_; }

 private:
  CAWString path_;
};

}  // namespace keelbase
