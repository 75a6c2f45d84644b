// Allocations_test.cpp - how much memory the way of a message takes, and what happens when there is
// none. Replaces operator new of the test program: it counts, and refuses while a test says so.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "Blocks.h"
#include "FailingAllocations.h"
#include "FakeIpc.h"
#include "FakeShmIpc.h"
#include "Frames.h"
#include "NetworkThread.h"
#include "TempRoot.h"
#include "TorvSink.h"
#include "keelbase/internal/Pool.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"
#include "zarn/utils/CTORVThread.h"
#include "zarn/utils/CZARNAppsManager.h"
#include "zarn/utils/CZARNLevelDBManager.h"
#include "zarn/utils/CZARNLibServerChannel.h"
#include "zarn/utils/CZARNListenNodeManager.h"
#include "zarn/utils/CZARNShareMemory.h"
#include "zarn/utils/CZARNSqliteDB.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"
#include "zarn/utils/detail/SendQueue.h"
#include "zarn/utils/torv.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

// No memory for this thread as long as it lives, nor what earlier tests have left in the pool of
// large blocks.
class Exhaustion {
 public:
  Exhaustion() {
    for (std::size_t size = 1024; size <= 128 * 1024; size *= 2)
      for (int i = 0; i < 4; ++i) pooled_.push_back(std::make_unique<CAWMessageBlock>(size));
    none_.emplace(1, true);
  }
  Exhaustion(const Exhaustion&) = delete;
  Exhaustion& operator=(const Exhaustion&) = delete;

 private:
  std::vector<std::unique_ptr<CAWMessageBlock>> pooled_;
  std::optional<FailingAllocation> none_;
};

// None once the pool has one; the sanitizers let it keep none.
std::size_t AllocationsOfABlock() {
  return AllocationsOf(
      [] { const auto block = std::make_unique<CAWMessageBlock>("", 0, CAWMessageBlock::borrow); });
}

// Takes up to `room` bytes of each send and keeps none, or refuses with `error`; allocates nothing.
template <class Platform>
class SwallowingTransport : public FakeCounted<typename Platform::Transport> {
 public:
  SwallowingTransport() : FakeCounted<typename Platform::Transport>(nullptr) {}

  std::size_t room = static_cast<std::size_t>(-1);
  AWResult error = AW_OK;
  std::size_t taken = 0;
  int disconnects = 0;

  AWResult OpenWithSink(typename Platform::TransportSink*) override { return AW_OK; }
  AWResult SendData(CAWMessageBlock& data, typename Platform::Parameter*) override {
    if (error != AW_OK) return error;
    const std::size_t offered = data.GetChainedLength();
    const std::size_t part = offered < room ? offered : room;
    data.AdvanceChainedReadPtr(part);
    taken += part;
    return part == offered ? AW_OK : AW_ERROR_PARTIAL_DATA;
  }
  AWResult Disconnect(long) override {
    ++disconnects;
    return AW_OK;
  }
  AWResult GetOption(int, void*) override { return AW_OK; }
  AWResult SetOption(int, void*) override { return AW_OK; }
};

class SwallowingShmTransport final : public SwallowingTransport<ShmIpc> {
 public:
  fshmipc::CAWShmIPCAddr GetPeerAddr() const override { return {}; }
  fshmipc::CAWShmIPCAddr GetLocalAddr() const override { return {}; }
};

struct OverIpc {
  static constexpr const char* kName = "CZARNLibServerChannel";
  using Channel = utils::CZARNLibServerChannel;
  using Transport = SwallowingTransport<LocalIpc>;
};

struct OverShm {
  static constexpr const char* kName = "CShmZARNLibServerChannel";
  using Channel = utils::CShmZARNLibServerChannel;
  using Transport = SwallowingShmTransport;
};

// Counts messages and notes nothing else.
template <class Channel>
class CountingChannel : public Channel {
 public:
  using Channel::Channel;
  std::size_t messages = 0;
  long lastReason = -1;
  void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {
    ++messages;
  }
  void OnPeerDisconnect(long reason) override { lastReason = reason; }
};

template <class World>
class ChannelFixture : public ::testing::Test {
 protected:
  AWResult Send(const std::string& payload) {
    return channel->SendZARNMessage(1, 2, payload.data(), payload.size());
  }
  void Receive(CAWMessageBlock& block) { channel->OnReceive(block, transport.Get(), nullptr); }

  using Channel = CountingChannel<typename World::Channel>;

  keelbase::CAWAutoPtr<typename World::Transport> transport{new typename World::Transport};
  std::unique_ptr<Channel> channel = std::make_unique<Channel>(transport.Get());
  const std::string small = std::string(64, 's');
};

template <class World>
class ChannelAllocations : public ChannelFixture<World> {};

struct WorldNames {
  template <class World>
  static std::string GetName(int) {
    return World::kName;
  }
};

using Worlds = ::testing::Types<OverIpc, OverShm>;
TYPED_TEST_SUITE(ChannelAllocations, Worlds, WorldNames);

// --- how much ---

TYPED_TEST(ChannelAllocations, SendingAMessageAllocatesNothing) {
  const std::string large(65523, 'l');
  EXPECT_EQ(AllocationsOf([&] {
              for (int i = 0; i < 1000; ++i) {
                this->Send(this->small);
                this->Send(large);
                this->channel->SendZARNMessage(1, 2, nullptr, 0);
              }
            }),
            0U);
  EXPECT_EQ(this->transport->taken, 1000U * (76 + 65535 + 12));
}

TYPED_TEST(ChannelAllocations, SendingAChainOfSevenBlocksAllocatesNothing) {
  const auto chain = Chain({"1", "2", "3", "4", "5", "6", "7"});
  EXPECT_EQ(AllocationsOf([&] { this->channel->SendZARNMessage(1, 2, *chain); }), 0U);
  EXPECT_EQ(this->transport->taken, 19U);
}

TYPED_TEST(ChannelAllocations, QueueOfSmallMessagesAllocatesByTheBlockNotByTheMessage) {
  this->transport->room = 0;
  EXPECT_LE(AllocationsOf([&] {
              for (int i = 0; i < 5000; ++i) this->Send(this->small);
            }),
            20U);  // 380000 bytes are six blocks
  EXPECT_EQ(this->channel->GetSendQueueLength(), 5000U * 76);
}

TYPED_TEST(ChannelAllocations, ReceivingAllocatesByTheEventNotByTheMessage) {
  std::string frames;
  for (int i = 0; i < 800; ++i) frames += Frame(1, 2, this->small);
  CAWMessageBlock first(65536);  // finds the thread's pools empty
  first.Write(frames.data(), 76);
  this->Receive(first);
  CAWMessageBlock one(65536);
  one.Write(frames.data(), 76);
  CAWMessageBlock many(65536);
  many.Write(frames.data(), frames.size());
  const std::size_t forOne = AllocationsOf([&] { this->Receive(one); });
  const std::size_t forMany = AllocationsOf([&] { this->Receive(many); });
  EXPECT_EQ(this->channel->messages, 802U);
  EXPECT_LE(forMany, forOne);
  EXPECT_LE(forOne, 2U);
}

TYPED_TEST(ChannelAllocations, ReceivingTakesABlockOfThePoolAndAllocatesNothingElse) {
  const std::string frames = Frame(1, 2, this->small) + Frame(1, 2, std::string(60000, 'l'));
  CAWMessageBlock first(frames.size());
  first.Write(frames.data(), frames.size());
  this->Receive(first);
  for (int i = 0; i < 100; ++i) {
    CAWMessageBlock block(frames.size());
    block.Write(frames.data(), frames.size());
    ASSERT_LE(AllocationsOf([&] { this->Receive(block); }), AllocationsOfABlock()) << i;
  }
  EXPECT_EQ(this->channel->messages, 202U);
}

// --- none left ---

TYPED_TEST(ChannelAllocations, ReceiverWithoutMemoryEndsThatConnectionAndSaysSo) {
  const std::string bytes(200000, 'x');
  CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
  {
    const Exhaustion none;
    this->Receive(block);
  }
  EXPECT_TRUE(this->channel->IsClosed());
  EXPECT_EQ(this->channel->lastReason, static_cast<long>(AW_ERROR_FAILURE));
  EXPECT_EQ(this->transport->disconnects, 1);
  EXPECT_EQ(this->transport->GetReferences(), 1U);
}

TYPED_TEST(ChannelAllocations, SenderWithoutMemoryForACutMessageClosesAndAnswers10001) {
  this->transport->room = 20;
  AWResult result = AW_OK;
  const std::string payload(60000, 'p');
  {
    const Exhaustion none;
    result = this->Send(payload);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_TRUE(this->channel->IsClosed());
  EXPECT_EQ(this->transport->disconnects, 1);
}

TYPED_TEST(ChannelAllocations, SenderWithoutMemoryBehindAQueueAnswers10001AndKeepsTheConnection) {
  this->transport->room = 0;
  ASSERT_EQ(this->Send(this->small), AW_OK);
  const std::string payload(60000, 'p');
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = this->Send(payload);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_FALSE(this->channel->IsClosed());
  EXPECT_EQ(this->channel->GetSendQueueLength(), 76U);
  this->transport->room = 100;
  this->channel->OnSend(this->transport.Get(), nullptr);
  EXPECT_EQ(this->channel->GetSendQueueLength(), 0U);
  EXPECT_EQ(this->transport->taken, 76U);
}

using ShmChannelAllocations = ChannelFixture<OverShm>;

TEST_F(ShmChannelAllocations, MessageThatMeetsAnErrorAndHasNoMemoryToWaitInIsLostWhole) {
  transport->error = 10012;
  const std::string payload(60000, 'p');
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = Send(payload);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_EQ(channel->GetSendQueueLength(), 0U);
  EXPECT_FALSE(channel->IsClosed());
  transport->error = AW_OK;
  EXPECT_EQ(Send(small), AW_OK);
  EXPECT_EQ(transport->taken, 76U);
}

TEST_F(ShmChannelAllocations, MessageOfWhichNothingWasTakenLeavesTheConnectionWithoutMemory) {
  transport->room = 0;
  const std::string payload(60000, 'p');
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = Send(payload);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_FALSE(channel->IsClosed());
  EXPECT_EQ(channel->GetSendQueueLength(), 0U);
}

TEST_F(ShmChannelAllocations, ChainTooLongToBeRememberedWithoutMemoryIsNotSent) {
  const auto chain = Chain({"1", "2", "3", "4", "5", "6", "7", "8"});
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = channel->SendZARNMessage(1, 2, *chain);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_EQ(transport->taken, 0U);
  EXPECT_EQ(chain->GetChainedLength(), 8U);
  EXPECT_EQ(channel->SendZARNMessage(1, 2, *chain), AW_OK);
  EXPECT_EQ(transport->taken, 20U);
}

TEST(Allocations, AccumulatorWithoutMemoryKeepsWhatItHolds) {
  utils::detail::ReceiveAccumulator accumulator;
  CAWMessageBlock held(8);
  held.Write("held", 4);
  ASSERT_EQ(accumulator.Append(held), AW_OK);
  const std::string bytes(200000, 'x');
  CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = accumulator.Append(block);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_EQ(std::string(accumulator.GetData(), accumulator.GetLength()), "held");
  EXPECT_EQ(accumulator.Append(block), AW_OK);
  EXPECT_EQ(accumulator.GetLength(), 200004U);
}

TEST(Allocations, AccumulatorWithoutMemoryStillConsumes) {
  utils::detail::ReceiveAccumulator accumulator;
  CAWMessageBlock block(65536);
  const std::string bytes(60000, 'x');
  block.Write(bytes.data(), bytes.size());
  ASSERT_EQ(accumulator.Append(block), AW_OK);
  {
    const Exhaustion none;
    accumulator.Consume(59000);
  }
  EXPECT_EQ(accumulator.GetLength(), 1000U);
}

TEST(Allocations, SendQueueWithoutMemoryKeepsWhatItHolds) {
  utils::detail::SendQueue queue;
  CAWMessageBlock first("first", 5, CAWMessageBlock::borrow);
  ASSERT_EQ(queue.Append(first), AW_OK);
  const std::string bytes(200000, 'x');
  CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = queue.Append(block);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  EXPECT_EQ(queue.GetLength(), 5U);
  std::string offered;
  queue.Offer([&](CAWMessageBlock& head) {
    offered = head.FlattenChained();
    return AW_ERROR_PARTIAL_DATA;
  });
  EXPECT_EQ(offered, "first");
}

TEST(Allocations, RegistriesWithoutMemoryAnswer10001AndKeepWhatTheyHold) {
  utils::CZARNAppsManager apps;
  utils::CZARNListenNodeManager nodes;
  utils::CZARNApp app;
  utils::CZARNListenNodeItem item;
  std::list<utils::CZARNApp> list;
  ASSERT_EQ(apps.AddApp(app), AW_OK);
  ASSERT_EQ(nodes.AddListenNotify(item), AW_OK);
  AWResult appResult = AW_OK;
  AWResult nodeResult = AW_OK;
  AWResult replaced = AW_ERROR_FAILURE;
  bool thrown = false;
  {
    const Exhaustion none;
    replaced = nodes.AddListenNotify(item);
    app.jno = 1;
    item.SetPno(1);
    appResult = apps.AddApp(app);
    nodeResult = nodes.AddListenNotify(item);
    try {
      apps.GetAppsList(list);
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
  }
  EXPECT_EQ(appResult, AW_ERROR_FAILURE);
  EXPECT_EQ(nodeResult, AW_ERROR_FAILURE);
  EXPECT_EQ(replaced, AW_OK);
  EXPECT_TRUE(thrown && list.empty());
  apps.GetAppsList(list);
  EXPECT_EQ(list.size(), 1U);
  EXPECT_EQ(nodes.GetSize(), 1U);
  EXPECT_EQ(apps.AddApp(app), AW_OK);
  EXPECT_EQ(nodes.AddListenNotify(item), AW_OK);
}

TEST(StoresWithoutMemory, AnswerWithACodeAndChangeNothing) {
  const TempDir dir;
  utils::CZARNSqliteDB db;
  ASSERT_EQ(db.InitDB(dir.GetPath() + "/db"), AW_OK);
  ASSERT_EQ(db.SetPersistentData("k", std::string(100, 'v')), AW_OK);
  {
    const std::string value(100, 'w');
    const std::string key("k");
    utils::CZARNSqliteDB::DataMap map;
    const Exhaustion exhaustion;
    EXPECT_EQ(db.SetPersistentData(key, value), AW_ERROR_FAILURE);
    EXPECT_EQ(db.UpdatePersistentData(key, value), AW_ERROR_FAILURE);
    EXPECT_EQ(db.RemovePersistentData(key), AW_ERROR_FAILURE);
    EXPECT_EQ(db.GetPersistentData(key), "");
    EXPECT_EQ(db.GetAllData(map), AW_ERROR_FAILURE);
  }
  EXPECT_EQ(db.GetPersistentData("k"), std::string(100, 'v'));
}

TEST(StoresWithoutMemory, LevelDBIsNotTouchedAgain) {
  const TempDir dir;
  utils::CZARNLevelDBManager store(false, 0, true, true);
  ASSERT_EQ(store.Open((dir.GetPath() + "/store").c_str()), 0);
  std::string key(100, 'k');
  std::string value(100, 'v');
  {
    const Exhaustion exhaustion;
    EXPECT_EQ(store.DBInsert(key.data(), key.size(), value.data(), value.size()), -1);
  }
  EXPECT_EQ(store.DBInsert(key.data(), key.size(), value.data(), value.size()), -1);
  EXPECT_EQ(store.DBUpdate(key.data(), key.size(), value.data(), value.size()), -1);
  EXPECT_EQ(store.DBRemove(key.data(), key.size()), -1);
  EXPECT_EQ(store.DBLookup(key.data(), key.size(), &value), -1);
  store.DBDump([](const char*, unsigned long, const char*, unsigned long) { FAIL(); });
  EXPECT_EQ(store.Open((dir.GetPath() + "/other").c_str()), 0);
  EXPECT_EQ(store.DBInsert(key.data(), key.size(), value.data(), value.size()), 0);
}

TEST(StoresWithoutMemory, SharedMemoryIsRefused) {
  const TempRoot root;
  const std::string name(100, 'n');
  keelbase::CAWAutoPtr<utils::CZARNShareMemory> memory;
  {
    const Exhaustion exhaustion;
    EXPECT_EQ(utils::CreateMemory(memory, name, 100), AW_ERROR_FAILURE);
  }
  EXPECT_FALSE(memory);
  EXPECT_EQ(utils::CreateMemory(memory, name, 100), AW_OK);
}

// --- in-process messages ---

// Each takes an event, a block and the block's bytes; a sanitizer's build has no pools for them.
constexpr std::size_t kPiecesOfAMessage = 3;
bool HasPools() {
  keelbase::internal::PoolFree(keelbase::internal::PoolAllocate(64), 64);
  return AllocationsOf(
             [] { keelbase::internal::PoolFree(keelbase::internal::PoolAllocate(64), 64); }) == 0;
}

// Holds all free small memory that this thread can get.
class EmptyPool {
 public:
  EmptyPool() {
    for (std::size_t fresh = 0; fresh == 0;) {
      void* piece = nullptr;
      fresh = AllocationsOf([&] { piece = keelbase::internal::PoolAllocate(64); });
      pieces_.push_back(piece);
    }
  }
  ~EmptyPool() {
    for (void* piece : pieces_) keelbase::internal::PoolFree(piece, 64);
  }
  EmptyPool(const EmptyPool&) = delete;
  EmptyPool& operator=(const EmptyPool&) = delete;

 private:
  std::vector<void*> pieces_;
};

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
    const EmptyPool pool;
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
