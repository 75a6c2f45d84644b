// TorvAllocations_test.cpp - how much memory messages between modules take, and what happens when
// there is none.
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Exhaustion.h"
#include "TorvSink.h"
#include "keelbase/internal/Pool.h"
#include "zarn/utils/CTORVThread.h"
#include "zarn/utils/torv.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

// Each takes an event, a block and the block's bytes; a sanitizer's build has no pools for them.
constexpr std::size_t kPiecesOfAMessage = 3;
bool HasPools() {
  keelbase::internal::PoolFree(keelbase::internal::PoolAllocate(64), 64);
  return AllocationsOf(
             [] { keelbase::internal::PoolFree(keelbase::internal::PoolAllocate(64), 64); }) == 0;
}

class CountingSink final : public utils::ITORVSink {
 public:
  void OnInit(void*) override { ++calls; }
  void OnMessage(CAWMessageBlock&, const unsigned short&, void*) override { ++calls; }
  void OnUnInit() override { ++calls; }
  int calls = 0;
};

CountingSink& MakeReceiver(unsigned short tno) {
  static auto& all = *new std::vector<std::unique_ptr<CountingSink>>;
  all.push_back(std::make_unique<CountingSink>());
  EXPECT_EQ(utils::TORVInit(all.back().get(), nullptr), AW_OK);
  utils::TORVRegisterTno(all.back().get(), tno, nullptr);
  return *all.back();
}

const std::string manyBytes(200000, 'm');

void SendMessages(int count, unsigned short tno, std::size_t size = 64) {
  for (int i = 0; i < count; ++i) {
    CAWMessageBlock block(manyBytes.data(), size, CAWMessageBlock::borrow);
    EXPECT_EQ(utils::SendTORVMessage(block, 1, tno), AW_OK);
  }
}

TEST(TorvAllocations, AddressedSendAllocatesNothingForThoseItSkips) {
  CountingSink& wanted = MakeReceiver(301);
  for (int i = 0; i < 1000; ++i) MakeReceiver(300);
  EXPECT_EQ(AllocationsOf([] { SendMessages(100, 302); }), 0U);
  SendMessages(1, 301);  // the pools of this thread are made
  WaitForDelivery();
  // Room in the queue is the one thing more.
  EXPECT_LE(AllocationsOf([] { SendMessages(1, 301); }), kPiecesOfAMessage + 1);
  WaitForDelivery();
  EXPECT_EQ(wanted.calls, 2);
}

TEST(TorvAllocations, MessagesUseTheMemoryOfThoseBefore) {
  CountingSink& sink = MakeReceiver(310);
  constexpr int kRounds = 100;
  constexpr int kMessages = 100;
  std::size_t count = 0;
  for (int round = 0; round < 2 * kRounds; ++round) {
    const std::size_t taken = AllocationsOf([] { SendMessages(kMessages, 310); });
    if (round >= kRounds) count += taken;
    WaitForDelivery();
  }
  // What is under way may now and then be more than ever before, and so take more room.
  constexpr std::size_t kRarely = kRounds * kMessages / 100;
  const std::size_t pieces = HasPools() ? 0 : kRounds * kMessages * kPiecesOfAMessage;
  EXPECT_GE(count, pieces);
  EXPECT_LE(count, pieces + kRarely);
  EXPECT_EQ(sink.calls, 2 * kRounds * kMessages);
}

TEST(TorvAllocations, RegisteringTakesTheSameAfterManyMessages) {
  utils::CTORVThread first(nullptr, nullptr);
  const std::size_t before = AllocationsOf([&] { first.RegisterTno(1, nullptr); });
  MakeReceiver(320);
  SendMessages(10000, 320);
  WaitForDelivery();
  utils::CTORVThread second(nullptr, nullptr);
  EXPECT_EQ(AllocationsOf([&] { second.RegisterTno(1, nullptr); }), before);
}

TEST(TorvAllocations, NothingIsPostedWithoutMemoryAndEverythingAnswersACode) {
  static auto& sink = *new CountingSink;
  static auto& receiver = *new utils::CTORVThread(&sink, nullptr);
  CAWMessageBlock block("borrowed", 8, CAWMessageBlock::borrow);
  CAWMessageBlock owned(10);
  owned.Write("owned", 5);
  unsigned long results[6];
  {
    const Exhaustion none;
    results[0] = receiver.PostTORVMessage(block, 1, nullptr);
    results[1] = receiver.PostTORVMessage(owned, 1, nullptr);
    results[2] = receiver.NotifyInitOk();
    results[3] = receiver.NotifyUnInit();
    results[4] = receiver.RegisterTno(1, nullptr);
    results[5] = utils::TORVInit(&sink, nullptr);
  }
  for (const unsigned long result : results) EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_FALSE(owned.IsShared());
  void* context = nullptr;
  EXPECT_EQ(receiver.GetTno(1, context), AW_ERROR_FAILURE);
  utils::NotifyTORVInitEnd();  // tells those that were added
  WaitForDelivery();
  EXPECT_EQ(sink.calls, 0);
}

TEST(TorvAllocations, AReceiverIsAddedWholeOrNotAtAll) {
  MakeReceiver(331);  // what is made once in a process
  static auto& sink = *new CountingSink;
  for (EachAllocation each; each.Next();) {
    unsigned long result = AW_OK;
    const EmptyPool pool;
    each.Try([&] { result = utils::TORVInit(&sink, nullptr); });
    EXPECT_EQ(result, each.HasFailed() ? AW_ERROR_FAILURE : AW_OK);
  }
  EXPECT_EQ(utils::TORVRegisterTno(&sink, 330, nullptr), AW_OK);
}

TEST(TorvAllocations, SenderWithoutMemoryForTheBytesDeliversNothingAndAnswers0) {
  CountingSink& sink = MakeReceiver(330);
  {
    const Exhaustion none;
    SendMessages(1, 330, 200000);
  }
  WaitForDelivery();
  EXPECT_EQ(sink.calls, 0);
  SendMessages(1, 330, 200000);
  WaitForDelivery();
  EXPECT_EQ(sink.calls, 1);
}

}  // namespace
}  // namespace zarn::test
