// MetricsAllocations_test.cpp - each allocation fails in turn while a snapshot of the streams of
// two threads is taken, and while one is sent to a reader. Real sockets; the loop turns by hand.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "Exhaustion.h"
#include "NetworkThread.h"
#include "RealIpc.h"
#include "TempRoot.h"
#include "TraceLines.h"
#include "keelbase/CAWThreadManager.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNMetrics.h"

namespace zarn::test {
namespace {

// A stream that tries to reach somebody who is not there.
struct LonelyChannel final : utils::CZARNLibClientChannel {
  void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {}
};

keelbase::CAWThread& Task() {
  auto* manager = keelbase::CAWThreadManager::Instance();
  return *manager->GetThread(keelbase::CAWThreadManager::TT_TASK);
}

class ZARNMetricsAllocations : public ::testing::Test {
 protected:
  void SetUp() override {
    here_ = std::make_unique<LonelyChannel>();
    EXPECT_EQ(here_->Init(5, 6, 7, 8), AW_OK);
    Task().Call([this] {
      there_ = std::make_unique<LonelyChannel>();
      EXPECT_EQ(there_->Init(1, 2, 3, 4), AW_OK);
    });
  }
  void TearDown() override {
    Task().Call([this] { there_.reset(); });
  }

  TempRoot root_;

 private:
  std::unique_ptr<LonelyChannel> here_;
  std::unique_ptr<LonelyChannel> there_;
};

TEST_F(ZARNMetricsAllocations, ASnapshotIsWholeOrSaysThatItIsNot) {
  constexpr std::uint32_t kLongMs = 20000;
  for (EachAllocation each; each.Next();) {
    utils::CZARNMetrics metrics;
    {
      const EmptyPool pool;
      each.Try([&] { metrics = utils::ZARNTakeMetrics(kLongMs); });
    }
    EXPECT_TRUE(metrics.isComplete || each.HasFailed());
    EXPECT_TRUE(!metrics.isComplete || metrics.streams.size() == 2) << each.GetNumber();
  }
}

TEST_F(ZARNMetricsAllocations, AReaderGetsAWholeAnswerOrNone) {
  const TraceLines trace;
  const std::string path = root_.GetPath() + "/system/zarn/stat/" + std::to_string(::getpid());
  int answers = 0;
  for (EachAllocation each; each.Next();) {
    ASSERT_EQ(utils::ZARNEnableMetrics(), AW_OK);  // which forgets how many have come
    PlainSocket socket = PlainSocket::Stream();
    ASSERT_EQ(socket.Connect(path), 0);
    {
      const EmptyPool pool;
      each.Try([&socket] {
        char byte;
        EXPECT_TRUE(
            Await([&] { return ::recv(socket.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0; }));
      });
    }
    std::string all;
    EXPECT_TRUE(Await([&] {
      all += socket.Receive();
      return socket.ended;
    })) << each.GetNumber();
    utils::ZARNDisableMetrics();
    if (all.empty()) {
      EXPECT_TRUE(each.HasFailed());
      continue;
    }
    ++answers;
    EXPECT_EQ(all.back(), '\n') << each.GetNumber();
    EXPECT_NE(all.find("\"format\":1"), std::string::npos);
  }
  EXPECT_GE(answers, 1);
}

}  // namespace
}  // namespace zarn::test
