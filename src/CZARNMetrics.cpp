// CZARNMetrics.cpp - see CZARNMetrics.h.
#include "zarn/utils/CZARNMetrics.h"

#include <unistd.h>

#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "MetricsEndpoint.h"
#include "MetricsRegistry.h"
#include "SystemDirectory.h"
#include "keelbase/CAWFile.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWSingleton.h"
#include "keelbase/CAWThreadManager.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWThread;

namespace {

// The process's endpoint. Never destroyed: threads may be inside it when the process ends.
class MetricsService {
 public:
  static MetricsService& Instance() {
    static auto& service = *new MetricsService;
    return service;
  }

  // On that platform thread, which is to serve.
  AWResult Start(CAWThread& thread) try {
    const std::lock_guard<std::mutex> lock(mutex_);
    keelbase::CAWSingletonT<EndAtExit>::Instance();
    if (keelbase::CAWCleanUpBase::HasRun()) return AW_ERROR_FAILURE;
    if (endpoint_ != nullptr) return AW_OK;
    const keelbase::CAWString system = DemandSystemDirectory();
    if (system.empty()) return AW_ERROR_FAILURE;
    const keelbase::CAWString directory = system + "/zarn/stat/";
    keelbase::CAWFile::mkdir(directory);  // if that fails, so does what follows, and says why
    const auto failed = [this](const MetricsEndpoint& endpoint) { Forget(endpoint); };
    auto endpoint = std::make_shared<MetricsEndpoint>(thread, failed);
    const keelbase::CAWIPCAddr address(directory + std::to_string(::getpid()));
    const AWResult result = endpoint->Start(address);
    if (result != AW_OK) return result;
    endpoint_ = std::move(endpoint);
    thread_ = &thread;
    return AW_OK;
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }

  void Stop() {
    if (CAWThread* thread = GetThread()) thread->Call([this] { End(); });
  }

 private:
  // Destroyed when the threads that the platform started have ended.
  struct EndAtExit {
    ~EndAtExit() { Instance().End(); }
  };

  CAWThread* GetThread() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return thread_;
  }

  // So that the next Start tries again; another endpoint may have taken its place. On its thread,
  // which is inside it and holds it.
  void Forget(const MetricsEndpoint& failed) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (endpoint_.get() != &failed) return;
    endpoint_ = nullptr;
    thread_ = nullptr;
  }

  // Ends it on its thread, if that still serves anything. Without the lock: that may wait for
  // somebody who works for the thread and is about to come here.
  void End() {
    std::shared_ptr<MetricsEndpoint> ended;
    CAWThread* thread = nullptr;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ended = std::move(endpoint_);
      thread = std::exchange(thread_, nullptr);
    }
    if (ended == nullptr || thread->IsCurrent()) return;
    thread->Post([ended] {});
  }

  std::mutex mutex_;
  std::shared_ptr<MetricsEndpoint> endpoint_;
  CAWThread* thread_ = nullptr;
};

}  // namespace

CZARNMetrics ZARNTakeMetrics(std::uint32_t milliseconds) try {
  const auto collection = MetricsCollection::Start({});
  collection->WaitFor(milliseconds);
  return collection->Take();
} catch (const std::bad_alloc&) {
  CZARNMetrics none;
  none.isComplete = false;
  return none;
}

AWResult ZARNEnableMetrics() try {
  if (keelbase::CAWCleanUpBase::HasRun()) return AW_ERROR_FAILURE;
  CAWThread* thread = keelbase::CAWThreadManager::Instance()->GetCurrentOrNetwork();
  if (thread == nullptr) return AW_ERROR_FAILURE;
  const bool own = thread->IsCurrent();
  return thread->Call([thread, own] {
    // In place on a thread that has stopped nobody would serve.
    if (!own && !thread->IsServing()) return AW_ERROR_FAILURE;
    return MetricsService::Instance().Start(*thread);
  });
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult ZARNDisableMetrics() try {
  MetricsService::Instance().Stop();
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

}  // namespace zarn::utils
