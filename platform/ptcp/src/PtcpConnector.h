// PtcpConnector.h - connects by pseudo-TCP, from a port of its own.
#pragma once

#include <optional>

#include "PtcpEngine.h"
#include "keelbase/internal/LoopObject.h"
#include "ptcp/CAWPseudoTCPManager.h"

namespace ptcp {

class PtcpConnector final : public keelbase::internal::LoopObject<IAWPseudoTCPConnector> {
 public:
  explicit PtcpConnector(keelbase::internal::EventLoop& loop) : LoopObject(loop), timer_(loop) {}
  ~PtcpConnector() override { Stop(); }

  keelbase::AWResult AsyncConnect(IAWPseudoTCPAcceptorConnectorSink* sink,
                                  const keelbase::CAWInetAddr& peer,
                                  const keelbase::CAWTimeValue* timeout,
                                  const keelbase::CAWInetAddr* local) override;
  keelbase::AWResult CancelConnect() override;

 private:
  void Begin();
  int StartConnect();
  void Finish(int error);
  void Stop();

  IAWPseudoTCPAcceptorConnectorSink* sink_ = nullptr;  // null: no connect under way
  keelbase::CAWInetAddr peer_;
  std::optional<keelbase::CAWInetAddr> local_;
  std::optional<keelbase::internal::Clock::Point> deadline_;
  keelbase::CAWAutoPtr<UdpPort> port_;
  keelbase::CAWAutoPtr<PtcpEngine> engine_;
  keelbase::internal::Timer timer_;  // begins the connect, then ends it when it is late
};

}  // namespace ptcp
