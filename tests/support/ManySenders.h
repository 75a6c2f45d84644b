// ManySenders.h - many threads send to one receiver, which checks every message.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "TorvSink.h"
#include "zarn/utils/torv.h"

namespace zarn::test {

// Sequence numbers count from 0 for each sender; the filling follows from both.
struct StampedMessage {
  std::uint64_t sender;
  std::uint64_t sequence;
  std::uint64_t filling[6];

  void Fill() {
    for (std::uint64_t& word : filling) word = sender * 0x9e3779b97f4a7c15U ^ sequence;
  }
};

class CheckingSink final : public utils::ITORVSink {
 public:
  static constexpr std::uint64_t kSenders = 8;

  void OnInit(void*) override {}
  void OnUnInit() override {}
  void OnMessage(keelbase::CAWMessageBlock& mb, const unsigned short& number,
                 void* context) override {
    StampedMessage message{};
    mb.CopyChained(reinterpret_cast<char*>(&message), sizeof message);
    StampedMessage expected{message.sender, 0, {}};
    if (message.sender < kSenders) expected.sequence = next[message.sender]++;
    expected.Fill();
    const bool right = mb.GetChainedLength() == sizeof message && context == this &&
                       number == static_cast<unsigned short>(expected.sequence) &&
                       std::memcmp(&message, &expected, sizeof message) == 0;
    if (!right) ++wrong;
  }

  std::uint64_t next[kSenders] = {};
  std::uint64_t wrong = 0;
};

// Odd senders write each message into the block that they have just sent, even ones lend out bytes
// that they overwrite.
inline void SendStamped(std::uint64_t sender, std::uint64_t count, unsigned short tno) {
  using keelbase::CAWMessageBlock;
  StampedMessage message{sender, 0, {}};
  const auto* bytes = reinterpret_cast<const char*>(&message);
  std::unique_ptr<CAWMessageBlock> own;
  for (; message.sequence < count; ++message.sequence) {
    message.Fill();
    const auto number = static_cast<unsigned short>(message.sequence);
    if (sender % 2 == 0) {
      CAWMessageBlock lent(bytes, sizeof message, CAWMessageBlock::borrow);
      utils::SendTORVMessage(lent, number, tno);
    } else {
      if (own == nullptr || own->GetSpace() < sizeof message)
        own = std::make_unique<CAWMessageBlock>(4 * sizeof message);
      own->AdvanceReadPtr(own->GetLength());
      own->Write(bytes, sizeof message);
      utils::SendTORVMessage(*own, number, tno);
    }
    if (message.sequence % 1024 == 1023) WaitForDelivery();  // the queue has no bound of its own
  }
}

// About `total` messages altogether: each arrives once, in its sender's order, with its contents.
inline void ExpectAllOfManySenders(std::uint64_t total) {
  constexpr unsigned short kTno = 230;
  static auto& sink = *new CheckingSink;
  ASSERT_EQ(utils::TORVInit(&sink, nullptr), keelbase::AW_OK);
  utils::TORVRegisterTno(&sink, kTno, &sink);
  const std::uint64_t each = total / CheckingSink::kSenders;
  std::vector<std::thread> senders;
  for (std::uint64_t sender = 0; sender < CheckingSink::kSenders; ++sender)
    senders.emplace_back([=] { SendStamped(sender, each, kTno); });
  for (std::thread& sender : senders) sender.join();
  WaitForDelivery();
  for (const std::uint64_t count : sink.next) EXPECT_EQ(count, each);
  EXPECT_EQ(sink.wrong, 0U);
}

}  // namespace zarn::test
