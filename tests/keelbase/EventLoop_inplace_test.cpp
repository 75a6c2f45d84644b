// EventLoop_inplace_test.cpp - calls to a loop that has stopped: they run in place, one at a time.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "LoopThread.h"
#include "TraceLines.h"
#include "keelbase/CAWReferenceControl.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FunctionEvent.h"

namespace keelbase::internal {
namespace {

using zarn::test::WithLoop;

void EndLoop(EventLoop& loop) {
  loop.Stop();
  loop.Run();
}

void WaitFor(const std::atomic<bool>& flag) {
  while (!flag) std::this_thread::yield();
}

// Tasks are taken from when Run() has been called.
class Opening final : public LoopTask {
 public:
  void WaitFor(EventLoop& loop) {
    while (!loop.PostTask(*this)) std::this_thread::yield();
  }

 private:
  void OnLoopTask() override {}
  void OnDropped() override {}
};

// Works in place from its making until it is told to leave.
class WorkerInPlace {
 public:
  explicit WorkerInPlace(EventLoop& loop)
      : thread_([this, &loop] { loop.Call([this] { Work(); }); }) {
    WaitFor(inside);
  }
  ~WorkerInPlace() {
    leave = true;
    thread_.join();
  }

  std::atomic<bool> inside{false};
  std::atomic<bool> leave{false};

 private:
  void Work() {
    inside = true;
    WaitFor(leave);
    inside = false;
  }
  std::thread thread_;
};

TEST(EventLoop, CallsInPlaceComeOneAtATime) {
  WithLoop([](EventLoop& loop) {
    EndLoop(loop);
    int inside = 0;
    int beside = 0;
    const auto call = [&] {
      for (int i = 0; i < 2000; ++i) {
        loop.Call([&] {
          if (++inside != 1) ++beside;
          std::this_thread::yield();
          --inside;
        });
      }
    };
    std::thread other(call);
    call();
    other.join();
    EXPECT_EQ(beside, 0);
  });
}

TEST(EventLoop, CallerInPlaceStandsForTheThread) {
  WithLoop([](EventLoop& loop) {
    const zarn::test::TraceLines lines;
    const CAWEnsureSingleThread check;
    check.EnsureSingleThread();
    EndLoop(loop);
    std::thread([&] {
      loop.Call([&] {
        EXPECT_TRUE(loop.IsCurrent());
        check.EnsureSingleThread();
        EXPECT_EQ(loop.Run(), AW_ERROR_FAILURE);
      });
      EXPECT_EQ(EventLoop::Current(), nullptr);
    }).join();
    EXPECT_TRUE(lines.Get().empty());
  });
}

TEST(EventLoop, RunBeginsWhenNobodyWorksInPlaceAnyMore) {
  WithLoop([](EventLoop& loop) {
    EndLoop(loop);
    WorkerInPlace worker(loop);
    bool beside = true;
    loop.Post(new FunctionEvent([&] { beside = worker.inside; }));
    Opening opening;
    std::thread poster([&] {
      opening.WaitFor(loop);
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      worker.leave = true;
      loop.Call([&] { loop.Stop(); });
    });
    loop.Run();
    poster.join();
    EXPECT_FALSE(beside);
  });
}

TEST(EventLoop, NewRunTakesWorkAlthoughWhoeverWasInPlaceHasEndedTheLoopMeanwhile) {
  WithLoop([](EventLoop& loop) {
    EndLoop(loop);
    std::atomic<bool> inside{false};
    std::thread ender([&] {
      loop.Call([&] {
        inside = true;
        Opening opening;
        opening.WaitFor(loop);
        loop.DropPosted();
      });
    });
    WaitFor(inside);
    AWResult posted = AW_ERROR_FAILURE;
    Timer timer(loop);
    timer.Start(std::chrono::microseconds(1), 1, [&] {
      posted = loop.Post(new FunctionEvent([] {}));
      loop.Stop();
    });
    loop.Run();
    ender.join();
    EXPECT_EQ(posted, AW_OK);
  });
}

class LetterTask final : public LoopTask {
 public:
  LetterTask(std::string& log, char name, bool outlasts)
      : log_(log), name_(name), outlasts_(outlasts) {}

 private:
  void OnLoopTask() override { log_ += name_; }
  void OnDropped() override { (log_ += "-") += name_; }
  bool OutlastsRun() const override { return outlasts_; }

  std::string& log_;
  const char name_;
  const bool outlasts_;
};

TEST(EventLoop, WhatWaitsForTheNextRunIsNotDoneByWhoeverWorksInPlace) {
  WithLoop([](EventLoop& loop) {
    EndLoop(loop);
    std::string log;
    LetterTask first(log, '1', false), kept(log, 'k', true), second(log, '2', false),
        last(log, 'l', true);
    loop.Call([&] {
      std::thread([&] {
        loop.HandOver(first);
        loop.PostTask(kept);
        loop.HandOver(second);
        loop.PostTask(last);
      }).join();
    });
    EXPECT_EQ(log, "12");
    loop.Call([] {});
    EXPECT_EQ(log, "12");
    loop.Post(new FunctionEvent([&] { loop.Post(new FunctionEvent([&] { loop.Stop(); })); }));
    loop.Run();
    EXPECT_EQ(log, "12kl");
  });
}

TEST(EventLoop, CallerThatWaitsToWorkInPlaceIsServedByANewRun) {
  WithLoop([](EventLoop& loop) {
    EndLoop(loop);
    WorkerInPlace worker(loop);
    std::atomic<bool> begun{false};
    std::thread::id ranOn;
    std::thread caller([&] {
      begun = true;
      loop.Call([&] { ranOn = std::this_thread::get_id(); });
      loop.Stop();
    });
    WaitFor(begun);
    Opening opening;
    std::thread opener([&] {
      opening.WaitFor(loop);
      worker.leave = true;
    });
    loop.Run();
    opener.join();
    caller.join();
    EXPECT_EQ(ranOn, std::this_thread::get_id());
  });
}

TEST(EventLoop, WhoWorksInPlaceMayCallTheSameLoopAndItsOwn) {
  WithLoop([](EventLoop& own) {
    EventLoop stopped("stopped");
    EndLoop(stopped);
    bool ownIsCurrent = false;
    bool stoppedIsCurrent = false;
    own.Post(new FunctionEvent([&] {
      stopped.Call([&] {
        own.Call([&] {
          ownIsCurrent = own.IsCurrent();
          stopped.Call([&] { stoppedIsCurrent = stopped.IsCurrent(); });
        });
      });
      EXPECT_TRUE(own.IsCurrent());
      own.Stop();
    }));
    own.Run();
    EXPECT_TRUE(ownIsCurrent);
    EXPECT_TRUE(stoppedIsCurrent);
  });
}

}  // namespace
}  // namespace keelbase::internal
