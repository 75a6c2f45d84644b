// torv_exit_test.cpp - messaging while a process ends, each time in a process of its own. The
// environment of this program adopts the network thread before a test begins, so the clean-up chain
// is older than everything here but global objects.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <string_view>
#include <thread>

#include "ChildTest.h"
#include "NetworkThread.h"
#include "TorvSink.h"
#include "keelbase/CAWSingleton.h"
#include "zarn/utils/CTORVManager.h"
#include "zarn/utils/torv.h"

namespace zarn::test {
namespace {

using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWCleanUpBase;
using keelbase::CAWMessageBlock;
using keelbase::CAWThread;
using keelbase::CAWThreadManager;
using utils::CTORVManager;

constexpr unsigned short kTno = 7;

// A global object: its destructor runs after the clean-up chain.
struct AfterTheChain {
  ~AfterTheChain() {
    if (action != nullptr) action();
  }
  void (*action)() = nullptr;
} afterTheChain;
std::atomic<bool> chainIsOver{false};

// At once: a process that ends has no time for buffers.
void Say(std::string_view text) {
  const std::string word = "[" + std::string(text) + "]";
  if (::write(STDOUT_FILENO, word.data(), word.size()) < 0) ::_exit(99);
}

// Says so when it is called too late, and does what the test wants done for each message.
class ActingSink final : public utils::ITORVSink {
 public:
  void OnInit(void*) override { OnCallback(); }
  void OnMessage(CAWMessageBlock& mb, const unsigned short&, void*) override {
    OnCallback();
    if (then) then(mb);
  }
  void OnUnInit() override { OnCallback(); }

  std::function<void(CAWMessageBlock&)> then;

 private:
  static void OnCallback() {
    if (chainIsOver) Say("late callback");
  }
};

ActingSink& MakeReceiver() {
  static auto& sink = *new ActingSink;
  EXPECT_EQ(utils::TORVInit(&sink, nullptr), AW_OK);
  utils::TORVRegisterTno(&sink, kTno, nullptr);
  return sink;
}

AWResult Send(std::string_view text) {
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  return utils::SendTORVMessage(block, 1, kTno);
}

// A block that tells whether a duplicate of it is left anywhere.
CAWMessageBlock& TheBlock() {
  static auto& block = *new CAWMessageBlock(16);
  if (block.GetLength() == 0) block.Write("pending", 7);
  return block;
}

void ReportBlock() {
  chainIsOver = true;
  Say(TheBlock().IsShared() ? "left over" : "all gone");
}

// What the process of that role has written; it is to end with `code`.
std::string OutputOf(const std::string& role, int code = 0) {
  ChildTest child(role);
  EXPECT_EQ(child.Wait(), code) << role << child.GetErrors();
  const std::string output = child.GetErrors();
  EXPECT_EQ(output.find("[late callback]"), std::string::npos) << output;
  return output;
}

#define ExpectSaid(word, output) EXPECT_NE((output).find("[" word "]"), std::string::npos) << output

// --- after the chain ---

void UseEverythingLate() {
  chainIsOver = true;
  static auto& late = *new ActingSink;
  CAWMessageBlock block("late", 4, CAWMessageBlock::borrow);
  const bool fine =
      CAWCleanUpBase::HasRun() && Send("late") == AW_OK && utils::NotifyTORVInitEnd() == AW_OK &&
      utils::TORVInit(&late, nullptr) == AW_OK &&
      utils::TORVRegisterTno(&late, kTno, nullptr) == AW_OK && Send("late") == AW_OK &&
      utils::TORVUnRegisterTno(&late, kTno) == AW_OK && utils::NotifyTORVUnInit() == AW_OK &&
      CTORVManager::Instance()->SendTORVMessage(block, 1) == AW_OK;
  Say(fine ? "fine" : "not fine");
}

TEST(TorvExit, EverythingAnswers0AfterTheChainAndDeliversNothing) {
  if (ChildTest::Role() == "used before") {
    MakeReceiver();
    Send("before");
    WaitForDelivery();
  }
  if (!ChildTest::Role().empty()) {
    afterTheChain.action = UseEverythingLate;
    std::exit(0);
  }
  ExpectSaid("fine", OutputOf("used before"));
  ExpectSaid("fine", OutputOf("never used"));  // there is no task thread then
}

TEST(TorvExit, StaticDestructorBeforeTheChainStillDelivers) {
  if (ChildTest::Role() == "static") {
    MakeReceiver().then = [](CAWMessageBlock& mb) { Say(mb.FlattenChained()); };
    static const struct Sender {
      ~Sender() {
        Send("from a destructor");
        WaitForDelivery();
      }
    } sender;
    std::exit(0);
  }
  ExpectSaid("from a destructor", OutputOf("static"));
}

class SendingSingleton {
 public:
  ~SendingSingleton() { Say(Send("gone") == AW_OK ? "answered" : "refused"); }
};

TEST(TorvExit, DestructorsOfOtherSingletonsMaySend) {
  if (!ChildTest::Role().empty()) {
    if (ChildTest::Role() == "newer") MakeReceiver();
    keelbase::CAWSingletonT<SendingSingleton>::Instance();
    MakeReceiver().then = [](CAWMessageBlock&) { Say("delivered"); };
    std::exit(0);
  }
  for (const char* role : {"newer", "older"}) {
    const std::string output = OutputOf(role);
    ExpectSaid("answered", output);
    EXPECT_EQ(output.find("[delivered]"), std::string::npos) << output;
  }
}

// --- what is pending ---

TEST(TorvExit, PendingMessagesAreDeliveredOrDestroyed) {
  if (ChildTest::Role() == "pending") {
    afterTheChain.action = ReportBlock;
    MakeReceiver();
    for (int i = 0; i < 20000; ++i) utils::SendTORVMessage(TheBlock(), 1, kTno);
    utils::NotifyTORVUnInit();
    std::exit(0);
  }
  ExpectSaid("all gone", OutputOf("pending"));
}

TEST(TorvExit, CallbacksThatSendForEverDoNotHoldTheProcess) {
  if (ChildTest::Role() == "for ever") {
    afterTheChain.action = ReportBlock;
    MakeReceiver().then = [](CAWMessageBlock& mb) { utils::SendTORVMessage(mb, 1, kTno); };
    for (int i = 0; i < 10; ++i) utils::SendTORVMessage(TheBlock(), 1, kTno);
    WaitForDelivery();
    std::exit(0);
  }
  ExpectSaid("all gone", OutputOf("for ever"));
}

TEST(TorvExit, ProcessMayEndInsideACallback) {
  if (ChildTest::Role() == "inside") {
    afterTheChain.action = ReportBlock;
    MakeReceiver().then = [](CAWMessageBlock&) { std::exit(7); };
    TaskThread()->Call([] {
      Send("exit");
      for (int i = 0; i < 1000; ++i) utils::SendTORVMessage(TheBlock(), 1, kTno);
    });
    std::promise<void>().get_future().wait();  // until exit() is called over there
  }
  ExpectSaid("all gone", OutputOf("inside", 7));
}

TEST(TorvExit, ThreadsOfTheProcessMaySendToTheLast) {
  if (ChildTest::Role() == "senders") {
    afterTheChain.action = [] {
      chainIsOver = true;
      Say("over");
    };
    MakeReceiver();
    static std::atomic<int> begun{0};
    // So many that some call is always inside; what nobody answers to costs no memory.
    constexpr int kSenders = 8;
    for (int i = 0; i < kSenders; ++i) {
      std::thread([] {
        CAWMessageBlock block("any time", 8, CAWMessageBlock::borrow);
        Send("any time");
        ++begun;
        for (;;) utils::SendTORVMessage(block, 1, kTno + 1);
      }).detach();
    }
    while (begun < kSenders) std::this_thread::yield();
    std::exit(0);
  }
  for (int round = 0; round < 5; ++round) ExpectSaid("over", OutputOf("senders"));
}

// --- a task thread that the process has already ---

TEST(TorvExit, MessagesAreHeldUntilTheTaskThreadServesThem) {
  if (!ChildTest::Role().empty()) {
    afterTheChain.action = ReportBlock;
    std::promise<void> adopted;
    std::promise<void> posted;
    std::thread task([&] {
      auto* manager = CAWThreadManager::Instance();
      if (manager->AdoptCurrentThread(CAWThreadManager::TT_TASK) != AW_OK) std::abort();
      adopted.set_value();
      posted.get_future().wait();
      if (ChildTest::Role() == "served") manager->GetThread(CAWThreadManager::TT_TASK)->Run();
    });
    adopted.get_future().wait();
    MakeReceiver().then = [](CAWMessageBlock&) {
      Say("delivered");
      TaskThread()->Stop();
    };
    utils::SendTORVMessage(TheBlock(), 1, kTno);
    Say("posted");
    posted.set_value();
    task.join();
    std::exit(0);
  }
  const std::string served = OutputOf("served");
  EXPECT_NE(served.find("[posted][delivered][all gone]"), std::string::npos) << served;
  const std::string never = OutputOf("never served");
  EXPECT_NE(never.find("[posted][all gone]"), std::string::npos) << never;
}

}  // namespace
}  // namespace zarn::test
