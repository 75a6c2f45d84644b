// Lingers.cpp - see Lingers.h.
#include "keelbase/internal/Lingers.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace keelbase::internal {

void Lingers::End(LingerTask& task) {
  tasks_.erase(std::remove(tasks_.begin(), tasks_.end(), &task), tasks_.end());
}

bool Lingers::Contains(const LingerTask& task) const {
  return std::find(tasks_.begin(), tasks_.end(), &task) != tasks_.end();
}

void Lingers::Finish() {
  while (!tasks_.empty()) {
    const auto now = Clock::Now();
    const std::vector<LingerTask*> tasks = tasks_;
    std::vector<pollfd> ready;
    auto wait = std::chrono::milliseconds::max();
    for (LingerTask* task : tasks) {
      ready.push_back({task->LingerDescriptor(), static_cast<short>(task->LingerEvents()), 0});
      wait = std::min(wait,
                      std::chrono::ceil<std::chrono::milliseconds>(task->LingerDeadline() - now));
    }
    const int timeout = static_cast<int>(std::clamp<std::int64_t>(wait.count(), 0, 2000));
    ::poll(ready.data(), ready.size(), timeout);
    for (std::size_t i = 0; i < tasks.size(); ++i) {
      if (!Contains(*tasks[i])) continue;  // one before it has ended it, and it may be gone
      if (tasks[i]->LingerDeadline() <= Clock::Now()) {
        tasks[i]->AbandonLinger();
      } else if (ready[i].revents != 0) {
        tasks[i]->WriteLingering();
      }
    }
  }
}

}  // namespace keelbase::internal
