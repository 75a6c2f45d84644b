// MetricsEndpoint.cpp - see MetricsEndpoint.h; and what makes the process's one.
#include "MetricsEndpoint.h"

#include <unistd.h>

#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "MetricsJson.h"
#include "SystemDirectory.h"
#include "keelbase/CAWFile.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWSingleton.h"
#include "keelbase/CAWThreadManager.h"
#include "keelbase/CAWTimeValue.h"
#include "keelbase/CAWTrace.h"
#include "keelbase/CAWTransport.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using keelbase::CAWThread;

namespace {

constexpr std::chrono::milliseconds kAnswerTime(1000);  // of the process's threads
constexpr std::uint32_t kReadTimeMs = 1000;             // of the reader
constexpr keelbase::CAWTimeValue kTick(0, 100000);

// With both times over, whoever was admitted is gone: so many answers exist at once at most.
constexpr auto kWindow = kAnswerTime + std::chrono::milliseconds(kReadTimeMs);

}  // namespace

MetricsEndpoint::~MetricsEndpoint() {
  if (acceptor_) acceptor_->StopListen();
}

AWResult MetricsEndpoint::Start(const keelbase::CAWIPCAddr& address) {
  if (const AWResult made = CreateIPCServer(acceptor_); made != AW_OK) return made;
  return acceptor_->StartListen(this, address);
}

void MetricsEndpoint::OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                                             fipc::IAWIPCAcceptorConnectorId* /*id*/) {
  if (reason != 0) return Fail(reason);
  if (IsTooMuch()) return;  // which closes the connection
  try {
    Admit(transport);
  } catch (const std::bad_alloc&) {
    return;
  }
}

void MetricsEndpoint::Fail(long reason) {
  const auto alive = shared_from_this();
  failed_(*this);
  const std::string why = keelbase::DescribeResult(reason);
  keelbase::IAWTraceManager::Instance()->Trace(0, "Metrics: cannot listen: " + why);
}

bool MetricsEndpoint::IsTooMuch() {
  const Clock::time_point now = Clock::now();
  Clock::time_point& oldest = admitted_[oldest_];
  if (oldest != Clock::time_point{} && now - oldest < kWindow) return true;
  oldest = now;
  oldest_ = (oldest_ + 1) % admitted_.size();
  return false;
}

void MetricsEndpoint::Admit(fipc::IAWIPCTransport* transport) {
  // The parts may come when this is gone, and on any thread.
  const auto complete = [&thread = thread_, weak = weak_from_this()] {
    thread.Post([weak] {
      if (const auto endpoint = weak.lock()) endpoint->AnswerWhoCanBe();
    });
  };
  Waiting waiting{transport, MetricsCollection::Start(complete), Clock::now() + kAnswerTime};
  waiting_.push_back(std::move(waiting));
  if (!timer_.IsScheduled()) timer_.Schedule(this, kTick);
}

void MetricsEndpoint::OnTimer(keelbase::CAWTimerWrapperID* /*timer*/) { AnswerWhoCanBe(); }

void MetricsEndpoint::AnswerWhoCanBe() {
  const Clock::time_point now = Clock::now();
  for (auto at = waiting_.begin(); at != waiting_.end();) {
    if (!at->collection->IsComplete() && now < at->end) {
      ++at;
      continue;
    }
    try {
      Answer(*at->reader, at->collection->Take());
    } catch (const std::bad_alloc&) {
      at->reader->Disconnect(0);
    }
    at = waiting_.erase(at);
  }
  if (waiting_.empty()) timer_.Cancel();
}

// What the system does not take now is written while the reader reads, for as long as it may
// linger.
void MetricsEndpoint::Answer(fipc::IAWIPCTransport& reader, CZARNMetrics metrics) {
  const std::string text = ToJson(std::move(metrics));
  CAWMessageBlock block(text.size());
  block.Write(text.data(), text.size());
  std::uint32_t time = kReadTimeMs;
  reader.SetOption(keelbase::AW_OPT_LINGER, &time);
  reader.SendData(block, nullptr);
  if (block.GetChainedLength() != 0) reader.SetOption(keelbase::AW_OPT_LINGER_DATA, &block);
  reader.Disconnect(0);
}

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
