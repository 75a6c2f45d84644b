// PtcpEngine.h - a connection on a port of a loop: what transports stand on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "ClockAndRandom.h"
#include "PtcpConnection.h"
#include "UdpPort.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "keelbase/internal/Engines.h"
#include "keelbase/internal/StreamSocket.h"

namespace ptcp {

// Gives the state machine its clock, its timer and its packets, and the sink its events. What is
// sent within a turn of the loop leaves at its end. See IAWPseudoTCPTransport for the contract.
// Loop thread only.
class PtcpEngine final : public keelbase::CAWReferenceControlT<keelbase::CAWMutexThread>,
                         private PtcpHost,
                         private PortUser,
                         private keelbase::internal::TurnEndTask {
 public:
  // 0, or why there is no connection; later, and once.
  using OnHandshake = std::function<void(int error)>;

  PtcpEngine(keelbase::internal::EventLoop& loop, const keelbase::CAWAutoPtr<UdpPort>& port,
             const Path& path);
  ~PtcpEngine() override { CloseNow(); }
  void OnReferenceDestory() override {
    keelbase::internal::DisconnectOrDelete(*this, state_ == State::closed);
  }

  // One of the two begins. Nothing is told to `done` when it fails: false, without memory or for a
  // first packet that makes no sense.
  bool Connect(OnHandshake done);
  bool Accept(const InitialHeader& initial, const ConnectionId& original, Bytes datagram, Time now,
              OnHandshake done);
  void Abort();  // ends a handshake; `done` is not called

  // As StreamSocket has them.
  keelbase::AWResult Open(keelbase::internal::StreamSocketSink* sink);
  keelbase::AWResult Send(keelbase::CAWMessageBlock& chain);
  void Disconnect();
  void StopReading(bool stop);
  keelbase::AWResult AddLingerData(const keelbase::CAWMessageBlock& chain);
  keelbase::AWResult GetOption(int code, void* value) const;
  keelbase::AWResult SetOption(int code, const void* value);

  const Path& GetPath() const override { return path_; }

 private:
  enum class State { handshake, fresh, open, ended, lingering, closed };

  bool IsDisconnected() const { return state_ == State::lingering || state_ == State::closed; }

  void SendDatagram(Bytes datagram) override { port_->Send(path_, datagram); }
  bool AddId(const ConnectionId& id) override;
  void RemoveId(const ConnectionId& id) override;
  Tag ResetToken(const ConnectionId& id) override { return port_->ResetToken(id); }
  void FillRandom(std::uint8_t* out, std::size_t length) override { FillWithRandom(out, length); }

  void OnDatagram(Bytes datagram, Time now) override { connection_.Receive(datagram, now); }
  // What comes before the peer's address is proved counts for how much may be sent there: bytes
  // without the connection's id must not.
  void OnReset(Bytes datagram, Time now) override {
    if (connection_.IsEstablished()) connection_.Receive(datagram, now);
  }
  void OnBatchEnd() override;
  bool MayHaveSent(Bytes packet) const override { return connection_.MayHaveSent(packet); }
  void OnPortError(int error) override;
  void OnPortFree() override;
  // While the port is blocked all but the end of a linger waits.
  Time LingerDue() const override {
    return port_->IsBlocked() ? lingerEnd_ : std::min(lingerEnd_, connection_.Due());
  }
  void OnLinger() override;

  void OnTurnEnd() override;
  void WantTurnEnd();
  void Flush();
  void WaitUntilFree();
  void Schedule();
  void OnTimer();

  void Serve();
  void ServeHandshake();
  void ServeOpen();
  void ServeLinger();
  void ReadOnce();
  void TellRoom();
  void End(long reason);
  void CopyIn(const keelbase::CAWMessageBlock& chain, std::size_t length);
  void LeavePort();
  void CloseNow();

  keelbase::internal::EventLoop& loop_;
  const keelbase::CAWAutoPtr<UdpPort> port_;
  const Path path_;
  PtcpConnection connection_;
  std::vector<ConnectionId> ids_;
  OnHandshake handshake_;
  keelbase::internal::StreamSocketSink* sink_ = nullptr;
  State state_ = State::handshake;
  bool reading_ = true;
  bool roomWanted_ = false;  // 10013 was answered
  bool dirty_ = false;       // OnTurnEnd is due
  bool onPort_ = true;
  bool awaitsPort_ = false;  // OnPortFree will come
  keelbase::internal::Timer timer_;
  Time timerDue_ = kNever;  // kNever: not started

  keelbase::internal::EngineOptions options_;
  std::size_t queueLimit_;
  Time lingerEnd_ = kNever;
  std::unique_ptr<keelbase::CAWMessageBlock> lingerData_;
  keelbase::CAWAutoPtr<PtcpEngine> self_;  // held while lingering

  keelbase::CAWTransportCounters counters_;
};

}  // namespace ptcp
