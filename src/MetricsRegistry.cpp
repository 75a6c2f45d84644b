// MetricsRegistry.cpp - see MetricsRegistry.h.
#include "MetricsRegistry.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>

#include "keelbase/CAWThreadManager.h"

namespace zarn::utils {

using keelbase::CAWThread;
using keelbase::CAWThreadManager;

namespace detail {

void MetricsEntry::Join(const void* stream, Read read) noexcept {
  MetricsRegistry::Instance().Join(*this, stream, read);
}

// A stream that never joined is not in anybody's reach.
void MetricsEntry::Leave() noexcept {
  if (stream_ != nullptr) MetricsRegistry::Instance().Leave(*this);
}

MetricsRegistry& MetricsRegistry::Instance() {
  static_assert(std::is_trivially_destructible_v<MetricsRegistry>);
  static MetricsRegistry registry;  // a stream joins also without memory
  return registry;
}

void MetricsRegistry::Join(MetricsEntry& entry, const void* stream, MetricsEntry::Read read) {
  CAWThread* thread = CAWThreadManager::Instance()->GetCurrent();
  const std::lock_guard<std::mutex> lock(mutex_);
  entry.thread_ = thread;
  if (entry.stream_ != nullptr) return;
  entry.stream_ = stream;
  entry.read_ = read;
  entry.number_ = ++joined_;
  entry.next_ = first_;
  if (first_ != nullptr) first_->previous_ = &entry;
  first_ = &entry;
}

void MetricsRegistry::Leave(MetricsEntry& entry) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (entry.next_ != nullptr) entry.next_->previous_ = entry.previous_;
  (entry.previous_ != nullptr ? entry.previous_->next_ : first_) = entry.next_;
  entry.stream_ = nullptr;
}

std::vector<CAWThread*> MetricsRegistry::GetThreads() {
  std::vector<CAWThread*> threads;
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const MetricsEntry* entry = first_; entry != nullptr; entry = entry->next_) {
    if (entry->thread_ == nullptr) continue;
    if (std::find(threads.begin(), threads.end(), entry->thread_) == threads.end())
      threads.push_back(entry->thread_);
  }
  return threads;
}

std::vector<CZARNStreamMetrics> MetricsRegistry::ReadOwn() {
  const CAWThread* own = CAWThreadManager::Instance()->GetCurrent();
  std::vector<CZARNStreamMetrics> streams;
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const MetricsEntry* entry = first_; entry != nullptr; entry = entry->next_) {
    if (own == nullptr || entry->thread_ != own) continue;
    CZARNStreamMetrics& stream = streams.emplace_back();
    stream.number = entry->number_;
    stream.isClient = entry->isClient_;
    entry->read_(*entry, stream);
  }
  return streams;
}

}  // namespace detail

std::shared_ptr<MetricsCollection> MetricsCollection::Start(std::function<void()> complete) {
  auto collection = std::make_shared<MetricsCollection>();
  const std::vector<CAWThread*> threads = detail::MetricsRegistry::Instance().GetThreads();
  collection->complete_ = std::move(complete);
  collection->missing_ = threads.size() + 1;  // one for this function, so that it ends last
  for (CAWThread* thread : threads) {
    if (thread->IsCurrent()) {
      collection->AddOwnPart();
    } else if (!thread->IsServing() ||
               thread->Post([collection] { collection->AddOwnPart(); }) != keelbase::AW_OK) {
      collection->PartDone(nullptr);
    }
  }
  std::vector<CZARNStreamMetrics> none;
  collection->PartDone(&none);
  return collection;
}

void MetricsCollection::AddOwnPart() noexcept {
  try {
    std::vector<CZARNStreamMetrics> part = detail::MetricsRegistry::Instance().ReadOwn();
    PartDone(&part);
  } catch (const std::bad_alloc&) {
    PartDone(nullptr);
  }
}

// Null: that thread's part cannot be had.
void MetricsCollection::PartDone(std::vector<CZARNStreamMetrics>* part) {
  std::function<void()> complete;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (part == nullptr) metrics_.isComplete = false;
    if (part != nullptr)
      metrics_.streams.insert(metrics_.streams.end(), std::make_move_iterator(part->begin()),
                              std::make_move_iterator(part->end()));
    if (--missing_ != 0) return;
    complete = std::move(complete_);
    promise_.set_value();
  }
  try {
    if (complete) complete();
  } catch (const std::bad_alloc&) {
    return;  // whoever waits looks again at its deadline
  }
}

bool MetricsCollection::IsComplete() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return missing_ == 0;
}

CZARNMetrics MetricsCollection::Take() {
  const std::lock_guard<std::mutex> lock(mutex_);
  CZARNMetrics taken = std::move(metrics_);
  metrics_ = {};
  if (missing_ != 0) taken.isComplete = false;
  std::sort(taken.streams.begin(), taken.streams.end(),
            [](const auto& a, const auto& b) { return a.number < b.number; });
  return taken;
}

}  // namespace zarn::utils
