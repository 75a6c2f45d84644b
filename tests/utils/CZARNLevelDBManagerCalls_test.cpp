// CZARNLevelDBManagerCalls_test.cpp - stores that are opened while a call of the system fails,
// once.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "FailingCalls.h"
#include "ForkedChild.h"
#include "TempRoot.h"
#include "zarn/utils/CZARNLevelDBManager.h"

namespace zarn::utils {
namespace {

using test::ForkedChild;

struct FailingCall {
  const char* name;
  int error;
};

class StoreCalls : public testing::TestWithParam<FailingCall> {
 protected:
  // One entry is in a table, as opening moves it there, and one is in the log.
  void Make() const {
    std::filesystem::remove_all(path_);
    for (std::string key : {"table", "log"}) {
      ASSERT_TRUE(ForkedChild([&] {
                    CZARNLevelDBManager store(true, 0, true, true);
                    return store.Open(path_.c_str()) == 0 &&
                           store.DBInsert(key.data(), key.size(), key.data(), key.size()) == 0;
                  }).Succeeded());
    }
  }

  // Whether there are so many calls that one more fails.
  bool OpenFailing(int passing) const {
    return ForkedChild([&] {
             const test::FailingCalls calls(GetParam().name, GetParam().error, 1, passing);
             CZARNLevelDBManager store(true, 0, true, true);
             store.Open(path_.c_str());
             return calls.GetFailed() == 1;
           })
        .Succeeded();
  }

  bool IsWhole() const {
    return ForkedChild([&] {
             CZARNLevelDBManager store(true, 0, true, true);
             bool whole = store.Open(path_.c_str()) == 0;
             for (std::string key : {"table", "log"}) {
               std::string value;
               whole = whole && store.DBLookup(key.data(), key.size(), &value) == 0 && value == key;
             }
             return whole;
           })
        .Succeeded();
  }

  const test::TempDir dir_;
  const std::string path_ = dir_.GetPath() + "/store";
};

TEST_P(StoreCalls, NothingIsLostByAnOpenInWhichOneFails) {
  int passing = 0;
  for (Make(); OpenFailing(passing); Make()) {
    EXPECT_TRUE(IsWhole()) << passing;
    ++passing;
  }
  EXPECT_GT(passing, 0);
}

TEST_P(StoreCalls, NothingIsLostByOneThatFailsWhileCurrentIsMissing) {
  bool failed = true;
  for (int passing = 0; failed; ++passing) {
    Make();
    std::filesystem::rename(path_ + "/CURRENT", path_ + "/kept");
    failed = OpenFailing(passing);
    std::filesystem::rename(path_ + "/kept", path_ + "/CURRENT");
    EXPECT_TRUE(IsWhole()) << passing;
  }
}

INSTANTIATE_TEST_SUITE_P(Name, StoreCalls,
                         testing::Values(FailingCall{"open", EMFILE}, FailingCall{"read", EIO},
                                         FailingCall{"access", EIO}, FailingCall{"readdir", EIO}),
                         [](const auto& call) { return std::string(call.param.name); });

}  // namespace
}  // namespace zarn::utils
