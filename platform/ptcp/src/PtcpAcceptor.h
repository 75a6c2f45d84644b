// PtcpAcceptor.h - takes pseudo-TCP connections at a port that all of them share.
#pragma once

#include <map>
#include <unordered_map>

#include "PtcpEngine.h"
#include "RetryTokens.h"
#include "keelbase/internal/LoopObject.h"
#include "ptcp/CAWPseudoTCPManager.h"

namespace ptcp {

class PtcpAcceptor final : public keelbase::internal::LoopObject<IAWPseudoTCPAcceptor> {
 public:
  explicit PtcpAcceptor(keelbase::internal::EventLoop& loop);
  ~PtcpAcceptor() override { Stop(); }

  keelbase::AWResult StartListen(IAWPseudoTCPAcceptorConnectorSink* sink,
                                 const keelbase::CAWInetAddr& addr, int backlog) override;
  keelbase::AWResult StopListen() override;
  keelbase::CAWInetAddr GetLocalAddr() const override;

  // Half-open connections.
  std::size_t TEST_HalfOpen() const { return halfOpen_.size(); }
  // As if it had come in at the port.
  void TEST_OnStranger(const Path& from, Bytes datagram) { OnStranger(from, datagram, Now()); }

 private:
  struct Place {
    keelbase::CAWAutoPtr<PtcpEngine> engine;
    bool proved;  // its peer's address
  };

  int Listen(const keelbase::CAWInetAddr& addr);
  void Stop();
  void OnStranger(const Path& from, Bytes datagram, Time now);
  void AskAgain(const Path& from, const InitialHeader& initial, Time now);
  bool HasRoomForProved(const Path& from) const;
  void Admit(const Path& from, const InitialHeader& initial, const ConnectionId& original,
             Bytes datagram, Time now);
  void GiveUpPlace(PtcpEngine* engine);
  void OnHandshake(PtcpEngine* engine, int error);

  IAWPseudoTCPAcceptorConnectorSink* sink_ = nullptr;  // null: not listening
  keelbase::CAWInetAddr local_;
  keelbase::CAWAutoPtr<UdpPort> port_;
  RetryTokens tokens_;
  std::size_t halfOpenLimit_ = 0;  // from here on addresses must be proved
  std::unordered_map<PtcpEngine*, Place> halfOpen_;
  std::map<keelbase::CAWInetAddr, std::size_t> provedOf_;  // half open ones of a host (port 0)
};

}  // namespace ptcp
