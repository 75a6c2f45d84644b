// MetricsEndpoint.cpp - see MetricsEndpoint.h.
#include "MetricsEndpoint.h"

#include <memory>
#include <new>
#include <string>
#include <utility>

#include "MetricsJson.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTimeValue.h"
#include "keelbase/CAWTrace.h"
#include "keelbase/CAWTransport.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::utils {

using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

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

}  // namespace zarn::utils
