// ChannelAllocations_test.cpp - how much memory the way of a message takes, and what happens when
// there is none. The transports are fakes.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Blocks.h"
#include "Exhaustion.h"
#include "FakeIpc.h"
#include "FakeShmIpc.h"
#include "Frames.h"
#include "NetworkThread.h"
#include "SwallowingTransport.h"
#include "TempRoot.h"
#include "zarn/utils/CShmZARNLibClientChannel.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"
#include "zarn/utils/detail/SendQueue.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

// None once the pool has one; the sanitizers let it keep none.
std::size_t AllocationsOfABlock() {
  return AllocationsOf(
      [] { const auto block = std::make_unique<CAWMessageBlock>("", 0, CAWMessageBlock::borrow); });
}

class SwallowingShmTransport final : public SwallowingTransport<ShmIpc> {
 public:
  fshmipc::CAWShmIPCAddr GetPeerAddr() const override { return {}; }
  fshmipc::CAWShmIPCAddr GetLocalAddr() const override { return {}; }
};

struct IpcChannels {
  static constexpr const char* kName = "CZARNLibServerChannel";
  using Channel = utils::CZARNLibServerChannel;
  using Transport = SwallowingTransport<LocalIpc>;
};

struct ShmChannels {
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
class FailingChannelFixture : public ::testing::Test {
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
class ChannelAllocations : public FailingChannelFixture<World> {};

struct ChannelKindNames {
  template <class World>
  static std::string GetName(int) {
    return World::kName;
  }
};

using ChannelKinds = ::testing::Types<IpcChannels, ShmChannels>;
TYPED_TEST_SUITE(ChannelAllocations, ChannelKinds, ChannelKindNames);

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
  const std::string bytes = Frame(1, 2, this->small) + Frame(1, 2, std::string(60000, 'x'));
  CAWMessageBlock block(bytes.data(), 50000, CAWMessageBlock::borrow);
  {
    const Exhaustion none;
    this->Receive(block);
  }
  EXPECT_EQ(this->channel->messages, 1U);
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

// --- clients, which come back ---

struct IpcClients {
  static constexpr const char* kName = "CZARNLibClientChannel";
  using Channel = CountingChannel<utils::CZARNLibClientChannel>;
  using Transport = IpcChannels::Transport;
  using Manager = FakeManager;
};

struct ShmClients {
  static constexpr const char* kName = "CShmZARNLibClientChannel";
  using Channel = CountingChannel<utils::CShmZARNLibClientChannel>;
  using Transport = ShmChannels::Transport;
  using Manager = FakeShmManager;
};

template <class World>
class ClientAllocations : public ::testing::Test {
 protected:
  ClientAllocations() {
    EXPECT_EQ(client.Init(3, 4, 1, 2), AW_OK);
    manager.Last().Complete(0, transport.Get());
    EXPECT_TRUE(client.IsConnected());
  }

  const TempRoot root;
  HandClock clock;
  typename World::Manager manager;
  keelbase::CAWAutoPtr<typename World::Transport> transport{new typename World::Transport};
  typename World::Channel client;
};

using ClientKinds = ::testing::Types<IpcClients, ShmClients>;
TYPED_TEST_SUITE(ClientAllocations, ClientKinds, ChannelKindNames);

TYPED_TEST(ClientAllocations, ClientWithoutMemoryForACutMessageConnectsAnewInASecond) {
  const std::string payload(60000, 'p');
  CAWMessageBlock block(payload.data(), payload.size(), CAWMessageBlock::borrow);
  CAWMessageBlock nothing("", 0, CAWMessageBlock::borrow);
  auto& channel = this->client;
  const std::function<AWResult()> ways[] = {
      [&] { return channel.SendZARNMessage(1, 2, payload.data(), payload.size()); },
      [&] { return channel.SendZARNMessage(1, 2, block); },
      [&] { return channel.SendZARNMessage(1, 2, nullptr, 0); },
      [&] { return channel.SendZARNMessage(1, 2, nothing); },
  };
  for (const auto& send : ways) {
    const std::size_t attempts = this->manager.connectors.size();
    this->transport->room = 5;
    AWResult result = AW_OK;
    {
      const Exhaustion none;
      result = send();
    }
    EXPECT_EQ(result, AW_ERROR_FAILURE);
    EXPECT_TRUE(channel.IsClosed());
    EXPECT_FALSE(channel.IsConnected());
    this->clock.Advance(std::chrono::seconds(1));
    ASSERT_EQ(this->manager.connectors.size(), attempts + 1);
    this->transport = new typename TypeParam::Transport;
    this->manager.Last().Complete(0, this->transport.Get());
    EXPECT_EQ(channel.SendZARNMessage(1, 2, "x", 1), AW_OK);
    EXPECT_EQ(this->transport->taken, 13U);
  }
}

TYPED_TEST(ClientAllocations, ClientWithoutMemoryForItsTimerIsRefusedAndBeginsNothing) {
  typename TypeParam::Channel fresh;
  AWResult result = AW_OK;
  {
    const Exhaustion none;
    result = fresh.Init(3, 4, 1, 2);
  }
  EXPECT_EQ(result, AW_ERROR_FAILURE);
  this->clock.Advance(std::chrono::seconds(10));
  EXPECT_EQ(this->manager.requests, 1);
  EXPECT_EQ(fresh.Init(3, 4, 1, 2), AW_OK);
}

// --- of shared memory only ---

using ShmChannelAllocations = FailingChannelFixture<ShmChannels>;

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

TEST(BufferAllocations, AccumulatorWithoutMemoryKeepsWhatItHolds) {
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

TEST(BufferAllocations, AccumulatorWithoutMemoryStillConsumes) {
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

TEST(BufferAllocations, SendQueueWithoutMemoryKeepsWhatItHolds) {
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

}  // namespace
}  // namespace zarn::test
