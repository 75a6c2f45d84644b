// ThreadOwner.h - the thread that a stream belongs to.
#pragma once

#include "keelbase/CAWReferenceControl.h"

namespace zarn::utils::detail {

// In debug builds use from another thread is traced, with both threads named, and ends the process;
// release builds check nothing. The layout is the same in both. Only the library's sources call it,
// so that its build decides and not that of a program.
class ThreadOwner {
 public:
  // For an operation that binds the stream to the first thread that calls it.
  void Claim([[maybe_unused]] const char* operation) {
#ifndef NDEBUG
    claimed_ = true;
    thread_.EnsureSingleThread(operation);
#endif
  }

  // For any other operation. Before the first Claim every thread may call it.
  void Check([[maybe_unused]] const char* operation) const {
#ifndef NDEBUG
    if (claimed_) thread_.EnsureSingleThread(operation);
#endif
  }

 private:
  [[maybe_unused]] keelbase::CAWEnsureSingleThread thread_;
  [[maybe_unused]] bool claimed_ = false;
};

}  // namespace zarn::utils::detail
