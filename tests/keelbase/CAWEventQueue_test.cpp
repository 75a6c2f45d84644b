// CAWEventQueue_test.cpp - the queue of a platform thread and the events that go into it.
#include "keelbase/CAWEventQueue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "TaskThread.h"
#include "VirtualSlot.h"

namespace keelbase {
namespace {

using zarn::test::TaskThread;

class Noting final : public IAWEvent {
 public:
  Noting(std::string& log, std::string name) : log_(log), name_(std::move(name)) {}
  ~Noting() override { log_ += "~" + name_; }
  AWResult OnEventFire() override {
    log_ += name_;
    return AW_ERROR_FAILURE;  // nobody looks
  }

 private:
  std::string& log_;
  std::string name_;
};

class BorrowedEvent final : public IAWEvent {
 public:
  AWResult OnEventFire() override {
    fired = true;
    return AW_OK;
  }
  void OnDestorySelf() override { done.set_value(); }
  bool fired = false;
  std::promise<void> done;
};

TEST(CAWEventQueue, EventsWaitInOneLineWhateverTheirPriority) {
  std::string log;
  TaskThread()->Call([&] {
    CAWEventQueue* queue = TaskThread()->GetEventQueue();
    EXPECT_EQ(queue->Post(new Noting(log, "a"), 9), AW_OK);
    EXPECT_EQ(queue->Post(new Noting(log, "b"), 0), AW_OK);
    EXPECT_EQ(queue->Post(new Noting(log, "c")), AW_OK);
    EXPECT_EQ(log, "");
  });
  TaskThread()->Call([&] { EXPECT_EQ(log, "a~ab~bc~c"); });
}

TEST(CAWEventQueue, EventDecidesItsOwnEnd) {
  BorrowedEvent event;
  EXPECT_EQ(TaskThread()->GetEventQueue()->Post(&event), AW_OK);
  event.done.get_future().wait();
  EXPECT_TRUE(event.fired);
}

TEST(CAWEventQueue, NullIsRefused) {
  EXPECT_EQ(TaskThread()->GetEventQueue()->Post(nullptr), AW_ERROR_FAILURE);
}

struct alignas(128) WideEvent final : IAWEvent {
  AWResult OnEventFire() override { return AW_OK; }
};

TEST(CAWEventQueue, EventsMayAskForMoreAlignmentThanThePoolGives) {
  std::vector<std::unique_ptr<WideEvent>> events(50);
  for (auto& event : events) {
    event = std::make_unique<WideEvent>();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(event.get()) % alignof(WideEvent), 0U);
  }
}

TEST(CAWEventQueue, VirtualFunctionsOfTheEventKeepTheirSlots) {
  EXPECT_EQ(zarn::test::VirtualSlot(&IAWEvent::OnEventFire), 0);
  EXPECT_EQ(zarn::test::VirtualSlot(&IAWEvent::OnDestorySelf), 1);
}

}  // namespace
}  // namespace keelbase
