// PtcpConnector.cpp - see PtcpConnector.h.
#include "PtcpConnector.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "PtcpTransport.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TryMake.h"

namespace ptcp {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::internal::Clock;

// The work is done by a timer that is due at once, so that nothing is told from in here.
AWResult PtcpConnector::AsyncConnect(IAWPseudoTCPAcceptorConnectorSink* sink,
                                     const CAWInetAddr& peer, const keelbase::CAWTimeValue* timeout,
                                     const CAWInetAddr* local) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (sink_ != nullptr) return;
    peer_ = peer;
    local_.reset();
    if (local != nullptr) local_ = *local;
    deadline_.reset();
    if (timeout != nullptr) deadline_ = Clock::After(timeout->ToDuration());
    timer_.Start(std::chrono::microseconds(0), 1, [this] { Begin(); });
    sink_ = sink;
    result = AW_OK;
  });
  return result;
}

AWResult PtcpConnector::CancelConnect() {
  GetLoop().Call([this] { Stop(); });
  return AW_OK;
}

void PtcpConnector::Stop() {
  timer_.Cancel();
  sink_ = nullptr;
  if (const auto engine = std::exchange(engine_, nullptr)) engine->Abort();
  port_ = nullptr;
}

void PtcpConnector::Begin() {
  const auto alive = Hold();
  if (!alive) return;  // no peer is asked for nobody
  try {
    if (const int error = StartConnect(); error != 0) return Finish(error);
    if (!deadline_) return;
    const auto left = std::chrono::ceil<std::chrono::microseconds>(*deadline_ - Clock::Now());
    timer_.Start(std::max(left, std::chrono::microseconds(0)), 1, [this] { Finish(ETIMEDOUT); });
  } catch (const std::bad_alloc&) {
    Finish(ENOMEM);
  }
}

int PtcpConnector::StartConnect() {
  if (peer_ == CAWInetAddr()) return EADDRNOTAVAIL;
  port_ = new UdpPort(GetLoop());
  if (const int error = port_->Open(local_ ? &*local_ : nullptr, &peer_); error != 0) return error;
  engine_ = new PtcpEngine(GetLoop(), port_, Path{peer_, {}});
  return engine_->Connect([this](int error) { Finish(error); }) ? 0 : ENOMEM;
}

void PtcpConnector::Finish(int error) {
  const auto alive = Hold();
  if (!alive) return;
  timer_.Cancel();
  CAWAutoPtr<IAWPseudoTCPTransport> transport;
  const CAWAutoPtr<PtcpEngine> engine = std::exchange(engine_, nullptr);
  if (error == 0) {
    error = keelbase::internal::TryMake<PtcpTransport>(transport, GetLoop(), engine.Get(),
                                                       port_->GetLocalAddr());
  }
  if (error != 0 && engine) engine->Abort();
  port_ = nullptr;
  keelbase::internal::TellOwner([&, sink = std::exchange(sink_, nullptr)] {
    sink->OnConnectIndication(error, transport.Get(), this);
  });
}

}  // namespace ptcp
