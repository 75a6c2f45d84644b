// LoopObject_test.cpp - objects of a loop whose last reference may be dropped anywhere.
#include "keelbase/internal/LoopObject.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "LoopThread.h"
#include "keelbase/CAWAutoPtr.h"

namespace keelbase::internal {
namespace {

using zarn::test::WithLoop;

class Interface {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

 protected:
  virtual ~Interface() = default;
};

struct Life {
  bool heldAfterTheLast = true;
  std::atomic<int> letGo{0};
  std::atomic<int> destroyed{0};
  std::thread::id destroyedOn;
};

class Object final : public LoopObject<Interface> {
 public:
  Object(EventLoop& loop, Life& life) : LoopObject(loop), life_(life) {}
  ~Object() override {
    ++life_.destroyed;
    life_.destroyedOn = std::this_thread::get_id();
    const CAWAutoPtr<Object> lookedBack(this);
  }

 private:
  void OnLastReference() override {
    ++life_.letGo;
    const CAWAutoPtr<Object> lookedBack(this);
  }
  Life& life_;
};

// A callback of the loop may come while another thread drops the last reference.
class CalledBack final : public LoopObject<Interface> {
 public:
  CalledBack(EventLoop& loop, Life& life) : LoopObject(loop), life_(life) {}
  ~CalledBack() override { ++life_.destroyed; }

 private:
  void OnLastReference() override {
    const auto alive = Hold();
    life_.heldAfterTheLast = static_cast<bool>(alive);
  }
  Life& life_;
};

// Is called back when the turn ends.
class Gathering final : public LoopObject<Interface>, private TurnEndTask {
 public:
  explicit Gathering(EventLoop& loop) : LoopObject(loop) { loop.AtTurnEnd(*this); }
  int calls = 0;
  int heard = 0;

 private:
  void OnTurnEnd() override {
    ++calls;
    if (Hold()) ++heard;
  }
};

TEST(LoopObject, IsCalledBackNoMoreOnceTheProcessEnds) {
  WithLoop([](EventLoop& loop) {
    const CAWAutoPtr<Gathering> before(new Gathering(loop));
    loop.RunReady();
    EXPECT_EQ(before->heard, 1);
    const CAWAutoPtr<Gathering> after(new Gathering(loop));
    loop.End();
    EXPECT_EQ(after->calls, 1);
    EXPECT_EQ(after->heard, 0);
  });
}

TEST(LoopObject, IsDestroyedInPlaceOnItsOwnThread) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    object = nullptr;
    EXPECT_EQ(life.letGo, 1);
    EXPECT_EQ(life.destroyed, 1);
  });
}

TEST(LoopObject, IsDestroyedOnItsThreadWhenAnotherDropsIt) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    std::thread([&] { object = nullptr; }).join();
    EXPECT_EQ(life.letGo, 1);
    EXPECT_EQ(life.destroyed, 0);
    loop.RunReady();
    EXPECT_EQ(life.destroyed, 1);
    EXPECT_EQ(life.destroyedOn, std::this_thread::get_id());
  });
}

TEST(LoopObject, IsDestroyedInPlaceOnceTheLoopHasStopped) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    loop.Stop();
    loop.Run();
    std::thread([&] {
      object = nullptr;
      EXPECT_EQ(life.destroyed, 1);
    }).join();
  });
}

TEST(LoopObject, IsDestroyedByWhoeverWorksInPlaceOnceTheLoopHasStopped) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    loop.Stop();
    loop.Run();
    std::thread([&] {
      loop.Call([&] {
        std::thread([&] { object = nullptr; }).join();
        EXPECT_EQ(life.destroyed, 0);
      });
      EXPECT_EQ(life.destroyed, 1);
      EXPECT_EQ(life.destroyedOn, std::this_thread::get_id());
    }).join();
  });
}

TEST(LoopObject, LivesUntilTheEndOfACallbackInWhichItIsLetGo) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    loop.Call([&] {
      Object& seen = *object;
      const auto alive = seen.Hold();
      ASSERT_TRUE(alive);
      object = nullptr;
      loop.RunReady();
      EXPECT_EQ(life.letGo, 0);
      EXPECT_FALSE(seen.Hold()) << "nobody is there any more";
    });
    EXPECT_EQ(life.letGo, 1);
    EXPECT_EQ(life.destroyed, 1);
  });
}

// Another thread lets go of the object while `callback` runs on the loop, and waits for its end.
template <class Callback>
void ExpectReleaseWaitsFor(Callback callback) {
  WithLoop([&](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    std::atomic<bool> begun{false};
    std::atomic<bool> ended{false};
    bool endedBefore = false;
    std::thread other;
    loop.Call([&] {
      Object& seen = *object;
      const auto alive = seen.Hold();
      other = std::thread([&] {
        begun = true;
        object = nullptr;
        endedBefore = ended;
      });
      while (!begun) std::this_thread::yield();
      callback(seen);
      ended = true;
    });
    other.join();
    EXPECT_TRUE(endedBefore);
    loop.RunReady();
    EXPECT_EQ(life.destroyed, 1);
  });
}

TEST(LoopObject, IsLetGoElsewhereOnlyWhenTheCallbackThatRunsHasEnded) {
  for (int round = 0; round < 100; ++round) {
    ExpectReleaseWaitsFor([](Object&) {
      for (int i = 0; i < 100; ++i) std::this_thread::yield();
    });
  }
}

TEST(LoopObject, IsLetGoElsewhereOnlyWhenTheOuterOfTwoCallbacksHasEnded) {
  for (int round = 0; round < 1000; ++round) {
    ExpectReleaseWaitsFor([](Object& object) {
      for (int i = 0; i < 2000; ++i) const auto again = object.Hold();
    });
  }
}

// The callback waits for that thread.
TEST(LoopObject, IsLetGoAtOnceOnAThreadThatHasALoop) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    EventLoop other("other");
    std::thread runs([&] {
      other.BindToCurrentThread();
      other.Run();
    });
    loop.Call([&] {
      const auto alive = object->Hold();
      other.Call([&] { object = nullptr; });
      EXPECT_EQ(life.destroyed, 0);
    });
    EXPECT_EQ(life.destroyed, 1);
    other.Stop();
    runs.join();
  });
}

TEST(LoopObject, IsLetGoElsewhereThoughACallbackHasEndedTheLoop) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<Object> object(new Object(loop, life));
    loop.Call([&] {
      const auto alive = object->Hold();
      std::thread waits([&] { object = nullptr; });
      loop.End();
      waits.join();
      EXPECT_EQ(life.destroyed, 0);
    });
    EXPECT_EQ(life.destroyed, 1);
  });
}

TEST(LoopObject, IsLetGoInAForkedChildThoughItsParentHadACallback) {
  Life life;
  WithLoop([&life](EventLoop& loop) {
    CAWAutoPtr<Object> object(new Object(loop, life));
    const auto alive = object->Hold();
    loop.LeaveToParent();
    std::thread([&] { object = nullptr; }).join();
    EXPECT_EQ(life.letGo, 0) << "the callback has it";
  });
}

TEST(LoopObject, GoesOnWhenACallbackRefersToItWhileTheLastReferenceIsDropped) {
  for (int round = 0; round < 100; ++round) {
    WithLoop([](EventLoop& loop) {
      Life life;
      CAWAutoPtr<Object> object(new Object(loop, life));
      CAWAutoPtr<Object> kept;
      std::thread other;
      loop.Call([&] {
        Object& seen = *object;
        const auto alive = seen.Hold();
        other = std::thread([&] { object = nullptr; });
        kept = &seen;
      });
      other.join();
      loop.RunReady();
      EXPECT_EQ(life.letGo, 0);
      EXPECT_TRUE(kept->Hold());
      kept = nullptr;
      EXPECT_EQ(life.letGo, 1);
      EXPECT_EQ(life.destroyed, 1);
    });
  }
}

TEST(LoopObject, ACallbackFindsNobodyOnceTheLastReferenceIsGone) {
  WithLoop([](EventLoop& loop) {
    Life life;
    CAWAutoPtr<CalledBack> object(new CalledBack(loop, life));
    object = nullptr;
    EXPECT_FALSE(life.heldAfterTheLast);
    EXPECT_EQ(life.destroyed, 1);
  });
}

TEST(LoopObject, LastReferenceIsFoundAmongManyThreads) {
  for (int round = 0; round < 100; ++round) {
    WithLoop([](EventLoop& loop) {
      Life life;
      CAWAutoPtr<Object> object(new Object(loop, life));
      std::thread one([copy = object]() mutable { copy = nullptr; });
      std::thread two([copy = object]() mutable { copy = nullptr; });
      object = nullptr;
      one.join();
      two.join();
      loop.RunReady();
      EXPECT_EQ(life.letGo, 1);
      EXPECT_EQ(life.destroyed, 1);
    });
  }
}

}  // namespace
}  // namespace keelbase::internal
