// FailingCalls.h - lets a system call of the calling thread fail. The test program has functions of
// its own in place of the library's (FailingCalls.cpp), but for the thread sanitizer, which has its
// own. Tests that include this are named *Calls_test.cpp and left out there.
#pragma once

namespace zarn::test {

// As long as it lives, a call of this thread fails with `error`: `count` of them, after the first
// `passing`. One at a time.
class FailingCalls {
 public:
  static constexpr int kAll = 1 << 30;

  // The name lives as long.
  FailingCalls(const char* name, int error, int count = kAll, int passing = 0);
  ~FailingCalls();
  FailingCalls(const FailingCalls&) = delete;
  FailingCalls& operator=(const FailingCalls&) = delete;

  int GetFailed() const;  // how many have failed
};

}  // namespace zarn::test
