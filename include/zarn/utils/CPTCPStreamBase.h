// CPTCPStreamBase.h - a pseudo-TCP connection that was made elsewhere, delivered block by block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWString.h"
#include "ptcp/CAWPseudoTCPTransport.h"
#include "zarn/utils/CZARNStreamCounters.h"
#include "zarn/utils/detail/Generation.h"
#include "zarn/utils/detail/MetricsEntry.h"
#include "zarn/utils/detail/ReadGate.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"
#include "zarn/utils/detail/SendQueue.h"
#include "zarn/utils/detail/ThreadOwner.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// Wraps a pseudo-TCP transport that exists already and hands its bytes to the subclass frame by
// frame, as message blocks. It never connects by itself: hand it what a ptcp connector or acceptor
// has indicated.
//
//   class Connection : public zarn::utils::CPTCPStreamBase {
//     std::uint16_t HandleMessage(keelbase::CAWMessageBlock& data) override {
//       return data.GetChainedLength() < kFrame ? 0 : kFrame;  // frames of one length
//     }
//     void OnPeerDisconnect(long reason) override { delete this; }
//   };
//   (new Connection)->SetTransportHandle(accepted);
//
// Threads, ownership and use inside upcalls: as CZARNIPCStreamBase. Bytes are taken from any
// transport that delivers them.
//
// Two rules need care.
// - After a send that the transport took only in part, what waits is offered to it twice as soon as
//   there is room, and whatever it does not take then is dropped: the peer gets bytes twice, or
//   not at all. A pseudo-TCP transport takes a send whole as long as less than
//   ptcp::AW_OPT_SEND_QUEUE_LIMIT (4 MiB unless set) waits in it, so a sender that stays below that
//   bound never gets there: count what is under way, as by answers of the peer, or set the bound on
//   the transport high enough, before it is handed over.
// - When an event begins with nothing held back, brings several frames, and ends exactly with the
//   last of them, then that last frame is handled, but also kept, and is offered a second time in
//   front of the next event's bytes. A handler that consumes all whole frames of a block in one
//   call, at most 65535 bytes, never sees that; with CountFurtherMessages each of them is counted.
//
// Limits: frames of at most 65535 bytes. See SetReceiveLimit for the receive buffer.
class ZARNUTILS_API CPTCPStreamBase : public ptcp::IAWPseudoTCPTransportSink {
 public:
  CPTCPStreamBase();
  CPTCPStreamBase(const CPTCPStreamBase&) = delete;
  CPTCPStreamBase& operator=(const CPTCPStreamBase&) = delete;

  // --- events of the transport; called by the platform, not by users ---

  // With nothing held back the block is advanced over the frames that were handled, else it is left
  // as it is.
  void OnReceive(keelbase::CAWMessageBlock& data, ptcp::IAWPseudoTCPTransport* transport,
                 ptcp::CAWPseudoTCPTransportParameter* parameter) override;

  // There is room again for what waits in the send queue, and this sends of it. A sender that holds
  // back overrides it, calls this version first, and goes on once GetSendQueueLength() is small.
  void OnSend(ptcp::IAWPseudoTCPTransport* transport,
              ptcp::CAWPseudoTCPTransportParameter* parameter) override;

  // Calls OnPeerDisconnect and does nothing else: the transport stays until Disconnect or
  // SetTransportHandle, what was received and queued until the stream's end.
  void OnDisconnect(long reason, ptcp::IAWPseudoTCPTransport* transport) override;

  // --- operations ---

  // Ends the connection; what SendMessage has accepted still goes out, as far as the peer takes it
  // within the transport's linger time (2 seconds). No upcall follows. On the stream's thread,
  // unless it has had no connection or Disconnect has ended it; an end by the peer is not enough.
  ~CPTCPStreamBase() override;

  // Sends the chain's unread bytes, in order with all that was sent before; what the transport does
  // not take at once waits in the send queue, but see the class comment. The chain's read pointers
  // are advanced over all of them. `parameter` (null for none) goes along to the transport. Never
  // blocks. 0; 10001 without a connection; else an error of the transport, and the chain is left as
  // it was. When something was waiting already the chain has been queued behind it even on such an
  // error, so it must not be sent again. No memory: 10001 and nothing sent; when part of it was on
  // its way already, the connection is ended.
  //
  // Also called when there is room again, with the send queue itself as the message, which is gone
  // when the call returns: a subclass that overrides this passes such a call on and does not look
  // at `data` afterwards.
  virtual keelbase::AWResult SendMessage(keelbase::CAWMessageBlock& data,
                                         ptcp::CAWPseudoTCPTransportParameter* parameter);

  // --- upcalls, for the subclass ---

  // `data` is a duplicate of all bytes received and not consumed yet, from the start of a frame: a
  // chain that the handler may read as it likes. Handle one frame and return its length, or return
  // 0 when it is not complete. Called again as long as frames and bytes are left; what is left then
  // comes back with what arrives next. Returning more than there is is a violation: the connection
  // is ended and OnPeerDisconnect(0) follows. So it does when the handler disconnects the stream.
  virtual std::uint16_t HandleMessage(keelbase::CAWMessageBlock& data) = 0;

  // The connection has ended. Not called when Disconnect or SetTransportHandle ended it, but for a
  // Disconnect inside HandleMessage. The stream is not touched after this call. `reason` is 0 when
  // the peer closed in order and when this side gave up in HandleMessage; 10001 for no memory; else
  // what the platform said, see ptcp::IAWPseudoTCPTransportSink.
  virtual void OnPeerDisconnect(long reason) = 0;

  // --- more operations ---

  // Takes over a connection, in place of one that there was (ended without upcall; the buffers are
  // kept). 0; 10001 for null (nothing changes), and when the transport cannot be opened because
  // somebody else has (it stays held until Disconnect).
  virtual keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<ptcp::IAWPseudoTCPTransport>& transport);

  // Ends the connection. What was received and what waits in the send queue is kept for the next
  // one; what the transport has taken still goes out. No upcall follows. `reason` has no effect.
  // Always 0.
  virtual keelbase::AWResult Disconnect(long reason);

  // --- accessors ---

  // Only stored: nothing reads or enforces them. Bytes, 1048576 by default.
  void SetSendBufferSize(std::uint32_t size) { sendBufferSize_ = size; }
  void SetRcvBufferSize(std::uint32_t size) { receiveBufferSize_ = size; }

  // Of the last connection that was attached; 0.0.0.0:0 before. The pointers are good as long as
  // the stream.
  void GetPeerIP(keelbase::CAWString& ip) { ip = peerAddr_.GetIpDisplayName(); }
  void GetLocalIP(keelbase::CAWString& ip) { ip = localAddr_.GetIpDisplayName(); }
  std::uint16_t GetPeerPort() { return peerAddr_.GetPort(); }
  std::uint16_t GetLocalPort() { return localAddr_.GetPort(); }
  const keelbase::CAWInetAddr* GetPeerAddr() const { return &peerAddr_; }
  const keelbase::CAWInetAddr* GetLocalAddr() const { return &localAddr_; }

  // Bytes that SendMessage accepted and the transport has not taken yet. What was given to
  // CAWThread::Post and has not run is not among them.
  std::size_t GetSendQueueLength() const { return sendQueue_.GetLength(); }

  const CZARNStreamCounters& GetCounters() const { return counters_; }

 protected:
  // While more than `bytes` received bytes stand unconsumed nothing more is read from the peer,
  // whose end is still noticed. 0, the default, is no limit. One below the length of the longest
  // frame blocks the connection for good.
  void SetReceiveLimit(std::size_t bytes);

  // For a handler that takes several frames in one call: counts those after the first, so that
  // messagesReceived is right. Called inside HandleMessage.
  void CountFurtherMessages(std::uint64_t count) { counters_.messagesReceived += count; }

 private:
  friend class detail::MetricsEntry;
  friend struct StreamSteps;
  static constexpr const char* kMetricsTransport = "ptcp";

  keelbase::AWResult SendAtOnce(keelbase::CAWMessageBlock& data,
                                ptcp::CAWPseudoTCPTransportParameter* parameter);
  keelbase::AWResult SendBehindOthers(keelbase::CAWMessageBlock& data,
                                      ptcp::CAWPseudoTCPTransportParameter* parameter);
  keelbase::AWResult SendQueueTwice(ptcp::CAWPseudoTCPTransportParameter* parameter);
  keelbase::AWResult OfferQueue(ptcp::CAWPseudoTCPTransportParameter* parameter);

  keelbase::CAWAutoPtr<ptcp::IAWPseudoTCPTransport> transport_;
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
