// EndpointListener_test.cpp - waiting for a directory that somebody else holds.
#include "keelbase/internal/EndpointListener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "LoopThread.h"
#include "TempRoot.h"
#include "keelbase/internal/ManualClock.h"

namespace keelbase::internal {
namespace {

using std::chrono::milliseconds;

TEST(EndpointListener, GivesUpADirectoryThatIsHeldForTenSecondsAndMayStartAgain) {
  zarn::test::WithLoop([](EventLoop& loop) {
    const zarn::test::TempDir dir;
    const std::string path = dir.GetPath() + "/1_2";
    const FileDescriptor held(::open(dir.GetPath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::vector<int> failures;
    EndpointListener listener(
        loop, [](const FileDescriptor&, const CAWPeerCredentials&) {},
        [&](int error) { failures.push_back(error); });
    ManualClock clock;
    for (std::size_t starts = 0; starts < 2; ++starts) {
      ASSERT_EQ(::flock(held.Get(), LOCK_EX | LOCK_NB), 0);
      EXPECT_EQ(listener.Start(path), 0);
      clock.Advance(milliseconds(9990));
      loop.RunReady();
      EXPECT_EQ(failures.size(), starts);
      clock.Advance(milliseconds(20));
      loop.RunReady();
      EXPECT_EQ(failures, std::vector<int>(starts + 1, EWOULDBLOCK));
      ASSERT_EQ(::flock(held.Get(), LOCK_UN), 0);
      clock.Advance(milliseconds(20));
      loop.RunReady();
      EXPECT_FALSE(std::filesystem::exists(path));  // it has stopped
    }
    EXPECT_EQ(listener.Start(path), 0);
    EXPECT_TRUE(std::filesystem::is_socket(path));
  });
}

}  // namespace
}  // namespace keelbase::internal
