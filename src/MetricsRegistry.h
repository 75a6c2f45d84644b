// MetricsRegistry.h - the list of the streams of the process, and how a snapshot of it is
// collected.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <vector>

#include "keelbase/CAWThread.h"
#include "zarn/utils/CZARNMetrics.h"
#include "zarn/utils/detail/MetricsEntry.h"

namespace zarn::utils {

namespace detail {

// One for the process, never destroyed: streams may outlive every static object. Any thread.
class MetricsRegistry {
 public:
  static MetricsRegistry& Instance();

  void Join(MetricsEntry& entry, const void* stream, MetricsEntry::Read read);
  void Leave(MetricsEntry& entry);

  // The platform threads that streams belong to.
  std::vector<keelbase::CAWThread*> GetThreads();

  // The streams of the calling platform thread.
  std::vector<CZARNStreamMetrics> ReadOwn();

 private:
  MetricsRegistry() = default;

  std::mutex mutex_;
  MetricsEntry* first_ = nullptr;
  std::uint64_t joined_ = 0;
};

}  // namespace detail

// A snapshot under way: each thread adds its part. Any thread.
class MetricsCollection {
 public:
  // Asks all threads; the calling one, if it is among them, has answered when this returns.
  // `complete` (may be empty) is called once, on any thread, when all have; perhaps from inside.
  // Throws std::bad_alloc.
  static std::shared_ptr<MetricsCollection> Start(std::function<void()> complete);

  bool IsComplete();
  void WaitFor(std::uint32_t milliseconds) {
    done_.wait_for(std::chrono::milliseconds(milliseconds));
  }

  // What has come by now. Once only.
  CZARNMetrics Take();

 private:
  void AddOwnPart() noexcept;
  void PartDone(std::vector<CZARNStreamMetrics>* part);

  std::mutex mutex_;
  CZARNMetrics metrics_;
  std::size_t missing_ = 0;  // parts
  std::function<void()> complete_;
  std::promise<void> promise_;
  std::future<void> done_ = promise_.get_future();
};

}  // namespace zarn::utils
