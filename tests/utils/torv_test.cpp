// torv_test.cpp - messages between modules of this process, by the free functions.
#include "zarn/utils/torv.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ChildTest.h"
#include "ManySenders.h"
#include "TorvSink.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using utils::NotifyTORVInitEnd;
using utils::NotifyTORVUnInit;
using utils::SendTORVMessage;
using utils::TORVInit;
using utils::TORVRegisterTno;
using utils::TORVUnRegisterTno;

AWResult Send(const std::string& text, unsigned short number, unsigned short tno) {
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  return SendTORVMessage(block, number, tno);
}

RecordingSink& MakeReceiver(void* arg = nullptr) {
  RecordingSink& sink = RecordingSink::Make();
  EXPECT_EQ(TORVInit(&sink, arg), AW_OK);
  return sink;
}

TEST(Torv, NullSinkIsRefused) { EXPECT_EQ(TORVInit(nullptr, nullptr), AW_ERROR_FAILURE); }

TEST(Torv, AddressedMessageReachesAllThatRegisteredEachWithItsContext) {
  RecordingSink& one = MakeReceiver();
  RecordingSink& two = MakeReceiver();
  RecordingSink& other = MakeReceiver();
  int contexts[2];
  EXPECT_EQ(TORVRegisterTno(&one, 100, &contexts[0]), AW_OK);
  EXPECT_EQ(TORVRegisterTno(&two, 100, &contexts[1]), AW_OK);
  EXPECT_EQ(TORVRegisterTno(&other, 101, nullptr), AW_OK);
  EXPECT_EQ(Send("both", 42, 100), AW_OK);
  EXPECT_EQ(one.Told(), "both");
  EXPECT_EQ(two.Told(), "both");
  EXPECT_EQ(other.Told(), "");
  EXPECT_EQ(one.deliveries[0].pointer, &contexts[0]);
  EXPECT_EQ(two.deliveries[0].pointer, &contexts[1]);
  EXPECT_EQ(one.deliveries[0].number, 42);  // the sender's number, not the Tno
}

TEST(Torv, UnknownTnoAnswers0AndDeliversNothing) {
  RecordingSink& sink = MakeReceiver();
  EXPECT_EQ(Send("nobody", 1, 110), AW_OK);
  EXPECT_EQ(sink.Told(), "");
}

TEST(Torv, RegisteringForAStrangerAnswers0AndChangesNothing) {
  RecordingSink& stranger = RecordingSink::Make();
  EXPECT_EQ(TORVRegisterTno(&stranger, 120, nullptr), AW_OK);
  EXPECT_EQ(TORVUnRegisterTno(&stranger, 120), AW_OK);
  EXPECT_EQ(Send("stranger", 1, 120), AW_OK);
  EXPECT_EQ(stranger.Told(), "");
}

TEST(Torv, TakenTnoAnswers0AndKeepsItsContext) {
  RecordingSink& sink = MakeReceiver();
  int contexts[2];
  EXPECT_EQ(TORVRegisterTno(&sink, 130, &contexts[0]), AW_OK);
  EXPECT_EQ(TORVRegisterTno(&sink, 130, &contexts[1]), AW_OK);
  Send("x", 1, 130);
  WaitForDelivery();
  ASSERT_EQ(sink.deliveries.size(), 1U);
  EXPECT_EQ(sink.deliveries[0].pointer, &contexts[0]);
}

TEST(Torv, UnRegisteredTnoIsDeliveredToAllTheSame) {
  RecordingSink& sink = MakeReceiver();
  TORVRegisterTno(&sink, 140, nullptr);
  EXPECT_EQ(TORVUnRegisterTno(&sink, 140), AW_OK);
  EXPECT_EQ(TORVUnRegisterTno(&sink, 140), AW_OK);
  Send("still", 1, 140);
  EXPECT_EQ(sink.Told(), "still");
}

TEST(Torv, SinkThatIsAddedTwiceIsTwoReceivers) {
  int arguments[2];
  RecordingSink& sink = MakeReceiver(&arguments[0]);
  ASSERT_EQ(TORVInit(&sink, &arguments[1]), AW_OK);
  TORVRegisterTno(&sink, 150, nullptr);
  NotifyTORVInitEnd();
  Send("twice", 1, 150);
  EXPECT_EQ(sink.Told(), "init init twice twice");
  EXPECT_EQ(sink.deliveries[0].pointer, &arguments[0]);
  EXPECT_EQ(sink.deliveries[1].pointer, &arguments[1]);
}

TEST(Torv, LifeOfAReceiverInItsUsualOrder) {
  RecordingSink& sink = MakeReceiver();
  TORVRegisterTno(&sink, 160, nullptr);
  EXPECT_EQ(NotifyTORVInitEnd(), AW_OK);
  Send("one", 1, 160);
  Send("two", 2, 160);
  EXPECT_EQ(NotifyTORVUnInit(), AW_OK);
  EXPECT_EQ(sink.Told(), "init one two uninit");
}

TEST(Torv, NoOrderOfStartAndStopIsEnforced) {
  RecordingSink& sink = MakeReceiver();
  NotifyTORVUnInit();
  TORVRegisterTno(&sink, 170, nullptr);
  Send("before", 1, 170);
  NotifyTORVInitEnd();
  NotifyTORVUnInit();
  Send("after", 1, 170);
  NotifyTORVInitEnd();
  EXPECT_EQ(sink.Told(), "uninit before init uninit after init");
}

TEST(Torv, EverybodyGetsMessagesInTheSameOrder) {
  RecordingSink& one = MakeReceiver();
  RecordingSink& two = MakeReceiver();
  for (RecordingSink* sink : {&one, &two}) TORVRegisterTno(sink, 180, nullptr);
  std::vector<std::thread> senders;
  for (int sender = 0; sender < 4; ++sender) {
    senders.emplace_back([sender] {
      for (int i = 0; i < 500; ++i) Send(std::to_string(sender * 1000 + i), 1, 180);
    });
  }
  for (std::thread& sender : senders) sender.join();
  const std::string told = one.Told();
  EXPECT_EQ(one.deliveries.size(), 2000U);
  EXPECT_EQ(told, two.Told());
}

TEST(Torv, LargeMessageArrivesWhole) {
  RecordingSink& sink = MakeReceiver();
  TORVRegisterTno(&sink, 190, nullptr);
  std::string large(10 << 20, 'l');
  large.back() = 'e';
  Send(large, 1, 190);
  EXPECT_EQ(sink.Told(), large);
}

// --- callbacks ---

// Does as the test says for each message, until the test ends.
class ActingSink final : public RecordingSink {
 public:
  static ActingSink& Make() {
    static auto& all = *new std::vector<std::unique_ptr<ActingSink>>;
    all.push_back(std::make_unique<ActingSink>());
    return *all.back();
  }
  void OnMessage(CAWMessageBlock& mb, const unsigned short& number, void* context) override {
    RecordingSink::OnMessage(mb, number, context);
    if (then) then(mb, number);
  }
  std::function<void(CAWMessageBlock&, unsigned short)> then;
};

class TorvCallback : public ::testing::Test {
 protected:
  // A later test's broadcast reaches these, too.
  ~TorvCallback() override {
    TaskThread()->Call([this] {
      for (ActingSink* sink : acting_) sink->then = nullptr;
    });
  }

  ActingSink& MakeActing(unsigned short tno) {
    ActingSink& sink = ActingSink::Make();
    EXPECT_EQ(TORVInit(&sink, nullptr), AW_OK);
    TORVRegisterTno(&sink, tno, nullptr);
    acting_.push_back(&sink);
    return sink;
  }

 private:
  std::vector<ActingSink*> acting_;
};

TEST_F(TorvCallback, MayUseEverythingAndIsNotEnteredTwice) {
  ActingSink& sink = MakeActing(200);
  RecordingSink& late = RecordingSink::Make();
  sink.then = [&](CAWMessageBlock& mb, unsigned short number) {
    if (number == 0) return;
    const std::size_t before = sink.deliveries.size();
    TORVInit(&late, nullptr);
    TORVRegisterTno(&late, 201, nullptr);
    SendTORVMessage(mb, 0, 201);
    SendTORVMessage(mb, 0, 200);
    NotifyTORVUnInit();
    EXPECT_EQ(sink.deliveries.size(), before);
  };
  Send("go", 1, 200);
  WaitForDelivery();  // of what the callback sends, too
  EXPECT_EQ(sink.Told(), "go go uninit");
  EXPECT_EQ(late.Told(), "go uninit");
}

TEST_F(TorvCallback, MayTakeItsBlockApartAndKeepIt) {
  ActingSink& sink = MakeActing(210);
  CAWMessageBlock* kept = nullptr;
  sink.then = [&](CAWMessageBlock& mb, unsigned short) {
    mb.AdvanceChainedReadPtr(2);
    kept = mb.DuplicateChained();
  };
  Send("keep", 1, 210);
  WaitForDelivery();
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->FlattenChained(), "ep");
  kept->DestroyChained();
}

TEST_F(TorvCallback, RequestsAndAnswersBounce) {
  constexpr int kBounces = 10000;
  ActingSink& one = MakeActing(220);
  ActingSink& two = MakeActing(221);
  std::atomic<int> bounces{0};
  one.then = [&](CAWMessageBlock& mb, unsigned short) {
    if (++bounces < kBounces) SendTORVMessage(mb, 1, 221);
  };
  two.then = [&](CAWMessageBlock& mb, unsigned short) { SendTORVMessage(mb, 1, 220); };
  Send("ball", 1, 220);
  while (bounces < kBounces) std::this_thread::yield();
  WaitForDelivery();
  EXPECT_EQ(two.deliveries.size(), kBounces - 1U);
}

TEST_F(TorvCallback, ExceptionThatLeavesItEndsTheProcessWithAMessage) {
  if (ChildTest::Role() == "throws") {
    MakeActing(7).then = [](CAWMessageBlock&, unsigned short) {
      throw std::runtime_error("the reason");
    };
    Send("boom", 1, 7);
    WaitForDelivery();
    std::exit(0);
  }
  ChildTest child("throws");
  EXPECT_EQ(child.Wait(), -SIGABRT);
  EXPECT_NE(child.GetErrors().find("exception left a callback on the zarn-task thread: the reason"),
            std::string::npos)
      << child.GetErrors();
}

TEST(Torv, UnRegisteringAnUnknownTnoStopsTheProcess) {
  if (ChildTest::Role() == "unknown") {
    RecordingSink& sink = MakeReceiver();
    TORVUnRegisterTno(&sink, 65535);
    std::exit(0);
  }
  ChildTest child("unknown");
  EXPECT_EQ(child.Wait(), -SIGABRT);
  EXPECT_NE(child.GetErrors().find("Tno 65535"), std::string::npos) << child.GetErrors();
}

// --- many senders ---

TEST(Torv, EachMessageOfEightSendersArrivesOnceInOrderAndIntact) {
  ExpectAllOfManySenders(100'000);  // the proof sends ten million
}

}  // namespace
}  // namespace zarn::test
