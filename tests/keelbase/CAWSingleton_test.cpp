// CAWSingleton_test.cpp - singletons and the clean-up chain, whose end is seen in child processes.
#include "keelbase/CAWSingleton.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ChildTest.h"
#include "ForkedChild.h"

namespace keelbase {
namespace {

using zarn::test::ChildTest;
using zarn::test::ForkedChild;

void Say(const char* text) { std::fprintf(stderr, "[%s]", text); }

struct First {
  First() { Say("+first"); }
  ~First() { Say("-first"); }
  int value = 0;
};
struct Second {
  Second() { Say("+second"); }
  ~Second() { Say("-second"); }
};
// Needs another singleton to come and to go.
struct Needy {
  Needy() { CAWSingletonT<First>::Instance()->value = 1; }
  ~Needy() {
    Say("-needy");
    CAWSingletonT<First>::Instance()->value = 2;
  }
};
struct MadeAtTheSecondTry {
  MadeAtTheSecondTry() {
    if (++tries == 1) throw std::bad_alloc();
    Say("+made");
  }
  ~MadeAtTheSecondTry() { Say("-made"); }
  inline static int tries = 0;
};
struct CountedOne {
  CountedOne() { ++made; }
  inline static std::atomic<int> made{0};
};

std::string OutputOf(const char* role) {
  ChildTest child(role);
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
  return child.GetErrors();
}

std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

TEST(CAWSingleton, IsOneObjectForAllThreads) {
  std::vector<CountedOne*> got(8);
  std::vector<std::thread> threads;
  for (CountedOne*& place : got)
    threads.emplace_back([&place] { place = CAWSingletonT<CountedOne>::Instance(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<CountedOne*>(got.begin(), got.end()).size(), 1U);
  EXPECT_EQ(CountedOne::made, 1);
  EXPECT_FALSE(CAWCleanUpBase::HasRun());
}

TEST(CAWSingleton, KnowsItsInstanceFromOtherObjects) {
  struct Plain {};
  const Plain other;
  EXPECT_TRUE(CAWSingletonT<Plain>::IsInstance(CAWSingletonT<Plain>::Instance()));
  EXPECT_FALSE(CAWSingletonT<Plain>::IsInstance(&other));
  EXPECT_FALSE(CAWSingletonT<Plain>::IsInstance(nullptr));
}

class AskingAtItsEnd {
 public:
  ~AskingAtItsEnd() { Say(CAWSingletonT<AskingAtItsEnd>::IsInstance(this) ? "there" : "gone"); }
};

TEST(CAWSingleton, IsNoInstanceAnyMoreOnceItsEndHasBegun) {
  if (ChildTest::Role() == "asking") {
    CAWSingletonT<AskingAtItsEnd>::Instance();
    std::exit(0);
  }
  EXPECT_NE(OutputOf("asking").find("[gone]"), std::string::npos);
}

TEST(CAWSingleton, SingletonsGoInTheReverseOrderOfTheirMaking) {
  if (ChildTest::Role() == "two") {
    CAWSingletonT<First>::Instance();
    CAWSingletonT<Second>::Instance();
    std::exit(0);
  }
  EXPECT_NE(OutputOf("two").find("[+first][+second][-second][-first]"), std::string::npos);
}

TEST(CAWSingleton, OneThatCouldNotBeMadeIsForgottenAndCanBeMadeLater) {
  if (ChildTest::Role() == "second try") {
    EXPECT_THROW(CAWSingletonT<MadeAtTheSecondTry>::Instance(), std::bad_alloc);
    CAWSingletonT<MadeAtTheSecondTry>::Instance();
    std::exit(0);
  }
  EXPECT_NE(OutputOf("second try").find("[+made][-made]"), std::string::npos);
}

TEST(CAWSingleton, ConstructorAndDestructorMayUseAnotherOne) {
  if (ChildTest::Role() == "needy") {
    CAWSingletonT<Needy>::Instance();
    std::exit(0);
  }
  const std::string output = OutputOf("needy");
  EXPECT_NE(output.find("[+first]"), std::string::npos) << output;
  EXPECT_NE(output.find("[-needy]"), std::string::npos) << output;
  EXPECT_EQ(CountOf(output, "[-first]"), 1U) << output;
}

TEST(CAWSingleton, InstanceAfterTheChainIsAnotherOneThatStays) {
  if (ChildTest::Role() == "late") {
    std::atexit([] {
      First* late = CAWSingletonT<First>::Instance();
      late->value = 5;
      if (!CAWCleanUpBase::HasRun() || CAWSingletonT<First>::Instance()->value != 5) ::_exit(1);
    });
    CAWSingletonT<First>::Instance();  // the chain is armed later, so it runs before the above
    std::exit(0);
  }
  const std::string output = OutputOf("late");
  EXPECT_EQ(CountOf(output, "[+first]"), 2U) << output;
  EXPECT_EQ(CountOf(output, "[-first]"), 1U) << output;
}

class Link final : public CAWCleanUpBase {
 public:
  explicit Link(const char* name) : name_(name) {}
  ~Link() override { Say(name_); }

 private:
  const char* name_;
};

TEST(CAWCleanUpBase, LinksAreDeletedInReverse) {
  if (ChildTest::Role() == "links") {
    new Link("one");
    CAWSingletonT<Second>::Instance();
    new Link("two");
    std::exit(0);
  }
  EXPECT_NE(OutputOf("links").find("[two][-second][one]"), std::string::npos);
}

class OwnerOfALink final : public CAWCleanUpBase {
 public:
  explicit OwnerOfALink(Link* owned) : owned_(owned) {}
  ~OwnerOfALink() override { delete owned_; }

 private:
  Link* owned_;
};

TEST(CAWCleanUpBase, ALinkMayDeleteAnEarlierOneAtItsEnd) {
  if (ChildTest::Role() == "owner") {
    new Link("first");
    new OwnerOfALink(new Link("owned"));
    std::exit(0);
  }
  const std::string output = OutputOf("owner");
  EXPECT_EQ(CountOf(output, "[owned]"), 1U) << output;
  EXPECT_NE(output.find("[owned][first]"), std::string::npos) << output;
}

TEST(CAWCleanUpBase, AForkedChildDeletesItsOwnLinksOnly) {
  if (ChildTest::Role() == "parent") {
    new Link("parent's");
    const bool succeeded = ForkedChild([] {
                             new Link("child's");
                             std::exit(0);
                             return true;
                           }).Succeeded();
    std::exit(succeeded ? 0 : 1);
  }
  const std::string output = OutputOf("parent");
  EXPECT_NE(output.find("[child's][parent's]"), std::string::npos) << output;
  EXPECT_EQ(CountOf(output, "[parent's]"), 1U) << output;
}

TEST(CAWCleanUpBase, ThreadsEndInTheChainAndMayUseOlderSingletonsToTheLast) {
  if (ChildTest::Role() == "threads") {
    CAWSingletonT<First>::Instance();
    CAWThread* task = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_TASK);
    std::atomic<bool> begun{false};
    task->Post([&begun] {
      begun = true;
      for (int i = 0; i < 100000; ++i) CAWSingletonT<First>::Instance()->value = i;
      Say("worked");
    });
    while (!begun) std::this_thread::yield();
    std::exit(0);
  }
  EXPECT_NE(OutputOf("threads").find("[worked][-first]"), std::string::npos);
}

TEST(CAWCleanUpBase, ThreadsEndBeforeASingletonThatIsNewerThanTheyAre) {
  if (ChildTest::Role() == "threads") {
    CAWThread* task = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_TASK);
    First* newer = CAWSingletonT<First>::Instance();
    std::atomic<bool> begun{false};
    task->Post([&begun, newer] {
      begun = true;
      while (!CAWCleanUpBase::HasRun()) std::this_thread::yield();
      for (int i = 0; i < 100000; ++i) newer->value = i;
      Say("worked");
    });
    while (!begun) std::this_thread::yield();
    std::exit(0);
  }
  EXPECT_NE(OutputOf("threads").find("[worked][-first]"), std::string::npos);
}

// Says what becomes of it.
class SayingEvent final : public IAWEvent {
 public:
  AWResult OnEventFire() override {
    Say("fired");
    return AW_OK;
  }
  ~SayingEvent() override { Say("destroyed"); }
};

TEST(CAWCleanUpBase, WhatWaitsOnAThreadThatDoesNotRunIsDestroyed) {
  if (ChildTest::Role() == "never run") {
    CAWThreadManager::Instance()->AdoptCurrentThread(CAWThreadManager::TT_MAIN);
    CAWThreadManager::Instance()
        ->GetThread(CAWThreadManager::TT_MAIN)
        ->GetEventQueue()
        ->Post(new SayingEvent);
    std::exit(0);
  }
  if (ChildTest::Role() == "exits itself") {
    CAWThread* task = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_TASK);
    task->Call([task] {
      task->Post([] { std::exit(0); });
      task->GetEventQueue()->Post(new SayingEvent);
    });
    for (;;) std::this_thread::yield();
  }
  for (const char* role : {"never run", "exits itself"}) {
    const std::string output = OutputOf(role);
    EXPECT_NE(output.find("[destroyed]"), std::string::npos) << role << output;
    EXPECT_EQ(output.find("[fired]"), std::string::npos) << role << output;
  }
}

}  // namespace
}  // namespace keelbase
