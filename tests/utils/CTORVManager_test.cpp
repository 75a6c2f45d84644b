// CTORVManager_test.cpp - the one manager, and the broadcast, which has no free function.
#include "zarn/utils/CTORVManager.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "TorvSink.h"

namespace zarn::test {
namespace {

using keelbase::AW_OK;
using keelbase::CAWMessageBlock;
using utils::CTORVManager;

TEST(TorvManager, ThereIsOneHoweverManyAskAtOnce) {
  std::vector<CTORVManager*> got(8);
  std::vector<std::thread> threads;
  for (CTORVManager*& place : got)
    threads.emplace_back([&place] { place = CTORVManager::Instance(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<CTORVManager*>(got.begin(), got.end()).size(), 1U);
}

TEST(TorvManager, BroadcastReachesEverybodyWithoutAContext) {
  CTORVManager& manager = *CTORVManager::Instance();
  RecordingSink& one = RecordingSink::Make();
  RecordingSink& two = RecordingSink::Make();
  int context = 0;
  ASSERT_EQ(manager.TORVInit(&one, nullptr), AW_OK);
  ASSERT_EQ(manager.TORVInit(&two, nullptr), AW_OK);
  ASSERT_EQ(manager.TORVRegisterTno(&one, 5, &context), AW_OK);
  CAWMessageBlock block("all", 3, CAWMessageBlock::borrow);
  EXPECT_EQ(manager.SendTORVMessage(block, 12), AW_OK);
  for (RecordingSink* sink : {&one, &two}) {
    EXPECT_EQ(sink->Told(), "all");
    ASSERT_EQ(sink->deliveries.size(), 1U);
    EXPECT_EQ(sink->deliveries[0].number, 12);
    EXPECT_EQ(sink->deliveries[0].pointer, nullptr);
  }
}

TEST(TorvManager, BroadcastWithoutReceiversAnswers0) {
  CAWMessageBlock block("none", 4, CAWMessageBlock::borrow);
  EXPECT_EQ(CTORVManager::Instance()->SendTORVMessage(block, 1), AW_OK);
}

TEST(TorvManager, HasNoVirtualOperations) { EXPECT_FALSE(std::is_polymorphic_v<CTORVManager>); }

}  // namespace
}  // namespace zarn::test
