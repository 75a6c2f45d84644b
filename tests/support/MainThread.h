// MainThread.h - the platform's main thread for tests: a thread of its own that serves its queue.
#pragma once

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "keelbase/CAWThreadManager.h"

namespace zarn::test {

class MainThreadEnvironment : public ::testing::Environment {
 public:
  // Starts it, unless it runs already.
  keelbase::CAWThread* Start() {
    using keelbase::CAWThreadManager;
    if (thread_.joinable())
      return CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_MAIN);
    std::promise<keelbase::CAWThread*> adopted;
    thread_ = std::thread([&adopted] {
      auto* manager = CAWThreadManager::Instance();
      EXPECT_EQ(manager->AdoptCurrentThread(CAWThreadManager::TT_MAIN), keelbase::AW_OK);
      auto* main = manager->GetThread(CAWThreadManager::TT_MAIN);
      adopted.set_value(main);
      main->Run();
    });
    return adopted.get_future().get();
  }
  void TearDown() override {
    if (!thread_.joinable()) return;
    Start()->Stop();
    thread_.join();
  }

 private:
  std::thread thread_;
};

inline MainThreadEnvironment* const kMainThread = static_cast<MainThreadEnvironment*>(
    ::testing::AddGlobalTestEnvironment(new MainThreadEnvironment));

}  // namespace zarn::test
