// LockForCall_test.cpp - the lock around one call; the lock is one that may fail.
#include "LockForCall.h"

#include <gtest/gtest.h>

#include "keelbase/CAWError.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using utils::LockForCall;

class FickleLock {
 public:
  explicit FickleLock(AWResult answer) : answer_(answer) {}
  AWResult Lock() { return answer_; }
  AWResult UnLock() {
    ++unlocks;
    return AW_OK;
  }
  int unlocks = 0;

 private:
  AWResult answer_;
};

TEST(LockForCall, IsUnlockedOnceWhenItWasLocked) {
  FickleLock lock(AW_OK);
  {
    const LockForCall<FickleLock> held(lock);
    EXPECT_EQ(lock.unlocks, 0);
  }
  EXPECT_EQ(lock.unlocks, 1);
}

TEST(LockForCall, GoesOnWithoutALockThatFailsAndDoesNotUnlockIt) {
  FickleLock lock(AW_ERROR_FAILURE);
  bool ran = false;
  {
    const LockForCall<FickleLock> held(lock);
    ran = true;
  }
  EXPECT_TRUE(ran);
  EXPECT_EQ(lock.unlocks, 0);
}

}  // namespace
}  // namespace zarn::test
