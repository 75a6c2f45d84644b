// PtcpSession.h - a session over pseudo-TCP with the operations of the library's other sessions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "ptcp/CAWPseudoTCPManager.h"
#include "zarn/utils/CPTCPStreamBase.h"

namespace zarn::tool {

// Connects, which CPTCPStreamBase does not, and keeps away from the user what is peculiar to that
// class: all whole frames of a block are consumed in one call, so that none is offered twice, and
// what waits to be sent is offered once. Each connection has a stream of its own, so nothing of an
// old one is left in a new one. Operations and upcalls as CZARNTCPSessionBase has them.
class PtcpSession : private ptcp::IAWPseudoTCPAcceptorConnectorSink {
 public:
  // What the transport holds at most; behind it bytes wait in the stream, which is told of room.
  // Enough for a turn of the loop on a fast path.
  static constexpr std::uint32_t kTransportQueue = 512 * 1024;

  PtcpSession();
  ~PtcpSession() override;
  PtcpSession(const PtcpSession&) = delete;
  PtcpSession& operator=(const PtcpSession&) = delete;

  keelbase::AWResult Connect(const keelbase::CAWInetAddr& peer, keelbase::CAWInetAddr* local);
  virtual keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<ptcp::IAWPseudoTCPTransport>& transport);
  virtual keelbase::AWResult Close(long reason);
  keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data);
  std::size_t GetSendQueueLength() const;
  const keelbase::CAWInetAddr* GetPeerAddr() const { return &peer_; }
  const utils::CZARNStreamCounters& GetCounters() const { return counters_; }

  virtual std::size_t HandleMessage(const char* data, std::size_t len) = 0;
  virtual int OnConnected(long reason) = 0;
  virtual void OnPeerDisconnect(long reason) = 0;
  virtual void OnRcvBufferOverFlow(std::uint32_t size) = 0;
  virtual void OnSend(ptcp::IAWPseudoTCPTransport* transport,
                      ptcp::CAWPseudoTCPTransportParameter* parameter);

 protected:
  void SetReceiveLimit(std::size_t bytes) { receiveLimit_ = bytes; }  // of the next connection
  void StopAtMalformedFrame() { ++counters_.malformedFrames; }

 private:
  class Stream;

  void OnConnectIndication(long reason, ptcp::IAWPseudoTCPTransport* transport,
                           ptcp::IAWPseudoTCPAcceptorConnectorId* id) override;
  std::uint16_t TakeFrames(const keelbase::CAWMessageBlock& data);

  keelbase::CAWAutoPtr<ptcp::IAWPseudoTCPConnector> connector_;
  std::unique_ptr<Stream> stream_;
  std::uint64_t generation_ = 0;  // of the stream
  std::size_t receiveLimit_ = 0;
  keelbase::CAWInetAddr peer_;
  utils::CZARNStreamCounters counters_;
};

}  // namespace zarn::tool
