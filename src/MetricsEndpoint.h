// MetricsEndpoint.h - sends everybody who connects a snapshot of the metrics.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <utility>

#include "MetricsRegistry.h"
#include "fipc/CAWIPCManager.h"
#include "fipc/CAWIPCTransport.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWThread.h"
#include "keelbase/CAWTimer.h"

namespace zarn::utils {

// Used and destroyed on one platform thread, which it is told.
class MetricsEndpoint final : public fipc::IAWIPCAcceptorConnectorSink,
                              public keelbase::CAWTimerWrapperIDSink,
                              public std::enable_shared_from_this<MetricsEndpoint> {
 public:
  // On that thread: it cannot listen after all.
  using Failed = std::function<void(const MetricsEndpoint&)>;

  MetricsEndpoint(keelbase::CAWThread& thread, Failed failed)
      : thread_(thread), failed_(std::move(failed)) {}
  ~MetricsEndpoint() override;

  // 0 or the acceptor's result; when that had to wait, `failed` may follow. Once.
  keelbase::AWResult Start(const keelbase::CAWIPCAddr& address);

 private:
  using Clock = std::chrono::steady_clock;
  // A reader, and the snapshot that is being taken for it.
  struct Waiting {
    keelbase::CAWAutoPtr<fipc::IAWIPCTransport> reader;
    std::shared_ptr<MetricsCollection> collection;
    Clock::time_point end;
  };

  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId* id) override;
  void OnTimer(keelbase::CAWTimerWrapperID* timer) override;
  void Fail(long reason);
  bool IsTooMuch();
  void Admit(fipc::IAWIPCTransport* transport);
  void AnswerWhoCanBe();
  static void Answer(fipc::IAWIPCTransport& reader, CZARNMetrics metrics);

  keelbase::CAWThread& thread_;
  const Failed failed_;
  keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  std::list<Waiting> waiting_;
  std::array<Clock::time_point, 16> admitted_{};  // when the last ones were, as a ring
  std::size_t oldest_ = 0;
  keelbase::CAWTimerWrapperID timer_;
};

}  // namespace zarn::utils
