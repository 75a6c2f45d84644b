// LoopThread.h - an event loop that a test drives by hand, on a thread of its own.
#pragma once

#include <chrono>
#include <thread>
#include <utility>

#include "keelbase/internal/EventLoop.h"

namespace zarn::test {

// Runs `body(loop)` on a new thread that the loop is bound to, and waits for it. What a body leaves
// bound ends with the thread.
template <class Body>
void WithLoop(Body&& body) {
  std::thread([&] {
    keelbase::internal::EventLoop loop("test");
    loop.BindToCurrentThread();
    body(loop);
  }).join();
}

// Turns the loop until `condition` holds; false when that takes more than ten seconds.
template <class Condition>
bool TurnUntil(keelbase::internal::EventLoop& loop, Condition&& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    if (!loop.RunReady()) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

}  // namespace zarn::test
