// MetricsFailingCalls_test.cpp - an endpoint whose directory is locked by another process at first.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>

#include "FailingCalls.h"
#include "NetworkThread.h"
#include "TempRoot.h"
#include "TraceLines.h"
#include "zarn/utils/CZARNMetrics.h"

namespace zarn::test {
namespace {

TEST(MetricsFailingCalls, AnEndpointThatCannotListenAfterAWaitSaysSoAndTheNextOneMay) {
  const TempRoot root;
  const TraceLines trace;
  HandClock clock;
  const std::string path = root.GetPath() + "/system/zarn/stat/" + std::to_string(::getpid());
  std::filesystem::create_directories(path);  // in the endpoint's place
  const FailingCalls locked("flock", EWOULDBLOCK, 1);
  EXPECT_EQ(utils::ZARNEnableMetrics(), keelbase::AW_OK);
  EXPECT_TRUE(trace.Get().empty());
  EXPECT_EQ(utils::ZARNEnableMetrics(), keelbase::AW_OK);
  clock.Advance(std::chrono::seconds(1));
  ASSERT_FALSE(trace.Get().empty());
  EXPECT_NE(trace.Get()[0].text.find("Metrics: cannot listen: "), std::string::npos);
  EXPECT_EQ(utils::ZARNEnableMetrics(), EADDRINUSE);
  std::filesystem::remove(path);
  EXPECT_EQ(utils::ZARNEnableMetrics(), keelbase::AW_OK);
  EXPECT_TRUE(std::filesystem::is_socket(path));
  EXPECT_EQ(utils::ZARNDisableMetrics(), keelbase::AW_OK);
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace zarn::test
