// Lingers.cpp - see Lingers.h.
#include "keelbase/internal/Lingers.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

namespace keelbase::internal {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLongestWait(2000);

// Before all are asked again where the system cannot tell who is ready.
constexpr milliseconds kBlindWait(10);

}  // namespace

void Lingers::Begin(LingerTask& task) {
  task.isReady = false;
  tasks_.Append(task);
}

void Lingers::End(LingerTask& task) {
  if (next_ == &task) next_ = tasks_.After(task);
  tasks_.Remove(task);
}

void Lingers::Finish() {
  while (!tasks_.IsEmpty()) {
    AwaitReady();
    ServeReady();
  }
}

void Lingers::AwaitReady() {
  const auto now = Clock::Now();
  auto wait = kLongestWait;
  std::vector<pollfd> polled;
  for (const LingerTask* task = tasks_.First(); task != nullptr; task = tasks_.After(*task)) {
    polled.push_back({task->LingerDescriptor(), static_cast<short>(task->LingerEvents()), 0});
    wait = std::min(wait, std::chrono::ceil<milliseconds>(task->LingerDeadline() - now));
  }
  wait = std::max(wait, milliseconds(0));
  const int count = ::poll(polled.data(), polled.size(), static_cast<int>(wait.count()));
  // EINVAL when there are more than the process may have descriptors by now.
  const bool blind = count < 0 && errno != EINTR;
  if (blind) ::poll(nullptr, 0, static_cast<int>(std::min(wait, kBlindWait).count()));
  LingerTask* task = tasks_.First();
  for (const pollfd& one : polled) {
    task->isReady = blind || one.revents != 0;
    task = tasks_.After(*task);
  }
}

// Whoever is served may end others, and delete them.
void Lingers::ServeReady() {
  const auto now = Clock::Now();
  for (next_ = tasks_.First(); next_ != nullptr;) {
    LingerTask& task = *next_;
    next_ = tasks_.After(task);
    if (task.LingerDeadline() <= now) {
      task.AbandonLinger();
    } else if (task.isReady) {
      task.WriteLingering();
    }
  }
}

}  // namespace keelbase::internal
