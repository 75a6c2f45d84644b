// CZARNTCPSSLTransport.h - a TLS connection that was accepted elsewhere, delivered block by block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWString.h"
#include "sslutils/CAWSSLTransport.h"
#include "zarn/utils/CZARNStreamCounters.h"
#include "zarn/utils/detail/Generation.h"
#include "zarn/utils/detail/MetricsEntry.h"
#include "zarn/utils/detail/ReadGate.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"
#include "zarn/utils/detail/SendQueue.h"
#include "zarn/utils/detail/ThreadOwner.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// CZARNTCPTransport inside TLS: wraps a transport that exists already and hands its bytes to the
// subclass frame by frame, as message blocks.
//
//   class Connection : public zarn::utils::CZARNTCPSSLTransport {
//     std::uint16_t HandleMessage(keelbase::CAWMessageBlock& data) override {
//       return data.GetChainedLength() < kFrame ? 0 : kFrame;  // frames of one length
//     }
//     void OnPeerDisconnect(long reason) override { delete this; }
//   };
//   (new Connection)->SetSSLTransportHandle(accepted);
//
// Threads, ownership and use inside upcalls: as CZARNIPCStreamBase. Bytes are taken from any
// transport that delivers them. What differs from CZARNTCPTransport:
// - no frame is offered twice;
// - a handler that claims more bytes than there are ends the connection only when nothing was held
//   back before the event; otherwise the bytes stay, and are offered again with what arrives next;
// - what this side ends from inside the receive path is told with the reason 10001, not 0;
// - the end of the connection drops transport and buffers, but does not mark the stream closed.
//
// Limits: frames of at most 65535 bytes. The send queue grows without bound while the peer does not
// read; watch GetSendQueueLength(). See SetReceiveLimit for the receive buffer.
class ZARNUTILS_API CZARNTCPSSLTransport : public sslutils::IAWSSLTransportSink {
 public:
  CZARNTCPSSLTransport();
  CZARNTCPSSLTransport(const CZARNTCPSSLTransport&) = delete;
  CZARNTCPSSLTransport& operator=(const CZARNTCPSSLTransport&) = delete;

  // --- events of the transport; called by the platform, not by users ---

  // The block is advanced over what was handled or kept, but for what is kept when nothing was held
  // back before.
  void OnSSLDataReceive(keelbase::CAWMessageBlock& data,
                        sslutils::IAWSSLTransport* transport) override;

  // Also called when this side ends the connection from inside the receive path. Drops what was
  // received and queued, and calls OnPeerDisconnect.
  void OnSSLDisconnect(long reason, sslutils::IAWSSLTransport* transport) override;

  // There is room again for what waits in the send queue, and this sends of it. A sender that holds
  // back overrides it, calls this version first, and goes on once GetSendQueueLength() is small.
  void OnSSLDataSend(sslutils::IAWSSLTransport* transport) override;

  // --- operations ---

  // Ends the connection like Disconnect(0). On the stream's thread, unless it has had no connection
  // or Disconnect has ended it; an end by the peer is not enough.
  ~CZARNTCPSSLTransport() override;

  // Sends the chain's unread bytes, in order with all that was sent before; what the transport does
  // not take at once waits in the send queue. The transport advances the chain over what it takes
  // at once; over what was queued it is not advanced. Never blocks. 0: all of it was sent or
  // queued, whatever is left unread; 10001 without a connection, for any error of the transport,
  // and without memory, which closes the stream when part of it was on its way already. When
  // something was waiting already the chain has been queued behind it even on an error of the
  // transport, so it must not be sent again.
  virtual keelbase::AWResult SendSSLMessage(keelbase::CAWMessageBlock& data);

  // --- upcalls, for the subclass ---

  // `data` is a duplicate of all bytes received and not consumed yet, from the start of a frame: a
  // chain that the handler may read as it likes. Handle one frame and return its length, or return
  // 0 when it is not complete. Called again as long as frames and bytes are left; what is left then
  // comes back with what arrives next. A handler that disconnects the stream is answered by
  // OnPeerDisconnect(10001); for one that returns more than there is see above.
  virtual std::uint16_t HandleMessage(keelbase::CAWMessageBlock& data) = 0;

  // The connection has ended. Not called when Disconnect or SetSSLTransportHandle ended it, but for
  // a Disconnect inside HandleMessage. The stream is not touched after this call. `reason` is 0
  // when the peer closed in order; 10001 when this side gave up in HandleMessage, and for no memory
  // (0 from OnReceiveDirect); else what the platform said, see sslutils::DescribeSSLResult.
  virtual void OnPeerDisconnect(long reason) = 0;

  // --- more operations ---

  // Takes over a connection, in place of one that there was (ended without upcall; the buffers are
  // kept). 0; 10001 for null (nothing changes), and when the transport cannot be opened because
  // somebody else has (it stays held until Disconnect).
  virtual keelbase::AWResult SetSSLTransportHandle(
      keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport);

  // Ends the connection and drops what was received. All that SendSSLMessage has accepted still
  // goes out, as far as the peer takes it within the transport's linger time (2 seconds). No upcall
  // follows. `reason` has no effect. Always 0.
  virtual keelbase::AWResult Disconnect(long reason);

  // For callers that come by received bytes on their own way: calls the handler with `data` itself,
  // until it has answered for as many bytes as the first segment holds, or 0. Between the calls the
  // block is not advanced, so a handler must take the whole segment at once or advance the block
  // itself; at the end it stands behind all that the handler answered for. 0; 10001 when the stream
  // was closed before, is now (a handler that claims too much closes it), or has another
  // connection. When it is closed, `data` is not advanced.
  keelbase::AWResult OnReceiveDirect(keelbase::CAWMessageBlock& data);

  // --- accessors ---

  // Only stored: nothing reads or enforces them. Bytes, 1048576 by default.
  void SetSendBufferSize(std::uint32_t size) { sendBufferSize_ = size; }
  void SetRcvBufferSize(std::uint32_t size) { receiveBufferSize_ = size; }

  bool IsClose() { return closed_; }

  // Of the last connection that was attached; 0.0.0.0:0 before. The pointers are good as long as
  // the stream.
  void GetPeerIP(keelbase::CAWString& ip) { ip = peerAddr_.GetIpDisplayName(); }
  void GetLocalIP(keelbase::CAWString& ip) { ip = localAddr_.GetIpDisplayName(); }
  std::uint16_t GetPeerPort() { return peerAddr_.GetPort(); }
  std::uint16_t GetLocalPort() { return localAddr_.GetPort(); }
  const keelbase::CAWInetAddr* GetPeerAddr() const { return &peerAddr_; }
  const keelbase::CAWInetAddr* GetLocalAddr() const { return &localAddr_; }

  // Bytes that SendSSLMessage accepted and the transport has not taken yet. What was given to
  // CAWThread::Post and has not run is not among them.
  std::size_t GetSendQueueLength() const { return sendQueue_.GetLength(); }

  const CZARNStreamCounters& GetCounters() const { return counters_; }

 protected:
  // While more than `bytes` received bytes stand unconsumed nothing more is read from the peer,
  // whose end is still noticed. 0, the default, is no limit. One below the length of the longest
  // frame blocks the connection for good.
  void SetReceiveLimit(std::size_t bytes);

 private:
  friend class detail::MetricsEntry;
  friend struct StreamSteps;
  static constexpr const char* kMetricsTransport = "tls";

  void TearDown(sslutils::IAWSSLTransport* transport);

  keelbase::CAWAutoPtr<sslutils::IAWSSLTransport> transport_;
  detail::ReceiveAccumulator received_;
  detail::SendQueue sendQueue_;
  // No code reads what is [[maybe_unused]]; debuggers show it.
  [[maybe_unused]] std::uint32_t sendBufferSize_ = 1048576;
  [[maybe_unused]] std::uint32_t receiveBufferSize_ = 1048576;
  keelbase::CAWInetAddr peerAddr_;
  keelbase::CAWInetAddr localAddr_;
  bool closed_ = false;

  detail::ReadGate readGate_;
  detail::Generation generation_;
  detail::ThreadOwner thread_;
  CZARNStreamCounters counters_;
  detail::MetricsEntry metrics_;
};

}  // namespace zarn::utils
