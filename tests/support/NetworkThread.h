// NetworkThread.h - makes the thread that runs the tests the platform's network thread, driven by
// hand.
#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "keelbase/CAWThreadManager.h"
#include "keelbase/internal/ManualClock.h"

namespace zarn::test {

// There is no second thread then, so callbacks come only when a test asks for them.
class NetworkThreadEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    auto* manager = keelbase::CAWThreadManager::Instance();
    ASSERT_EQ(manager->AdoptCurrentThread(keelbase::CAWThreadManager::TT_NETWORK), keelbase::AW_OK);
  }
};

// Including this header is enough: registered once in a test program.
inline ::testing::Environment* const kNetworkThread =
    ::testing::AddGlobalTestEnvironment(new NetworkThreadEnvironment);

// Carries out what is due and ready now.
inline void RunReady() {
  auto* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  while (network->TEST_RunReady()) {
  }
}

// Time that passes only when a test says so.
class HandClock {
 public:
  void Advance(std::chrono::milliseconds time) {
    clock_.Advance(time);
    RunReady();
  }

 private:
  keelbase::internal::ManualClock clock_;
};

}  // namespace zarn::test
