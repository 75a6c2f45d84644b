// CZARNTCPTransport.h - a TCP connection that was accepted elsewhere, delivered block by block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWString.h"
#include "wface/CAWTransport.h"
#include "zarn/utils/CZARNStreamCounters.h"
#include "zarn/utils/detail/Generation.h"
#include "zarn/utils/detail/MetricsEntry.h"
#include "zarn/utils/detail/ReadGate.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"
#include "zarn/utils/detail/SendQueue.h"
#include "zarn/utils/detail/ThreadOwner.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// Wraps a TCP transport that exists already and hands its bytes to the subclass frame by frame, as
// message blocks. It never connects by itself; for that, and for frames of any length, take
// CZARNTCPSessionBase.
//
//   class Connection : public zarn::utils::CZARNTCPTransport {
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
// One rule needs care. When an event begins with nothing held back, brings several frames, and ends
// exactly with the last of them, then that last frame is handled, but also kept, and is offered a
// second time in front of the next event's bytes; handlers must stand that. (It is the copy of the
// rest that is kept after each frame. The next frame's copy takes its place, and the one before is
// freed, so a peer can make this cost no more than one event's bytes.) An event that begins with
// bytes held back leaves no such copy.
//
// Limits: frames of at most 65535 bytes. The send queue grows without bound while the peer does not
// read; watch GetSendQueueLength(). See SetReceiveLimit for the receive buffer.
class ZARNUTILS_API CZARNTCPTransport : public wface::IAWTransportSink {
 public:
  CZARNTCPTransport();
  CZARNTCPTransport(const CZARNTCPTransport&) = delete;
  CZARNTCPTransport& operator=(const CZARNTCPTransport&) = delete;

  // --- events of the transport; called by the platform, not by users ---

  // With nothing held back the block is advanced over the frames that were handled, else it is left
  // as it is.
  void OnReceive(keelbase::CAWMessageBlock& data, wface::IAWTransport* transport,
                 wface::CAWTransportParameter* parameter) override;

  // There is room again for what waits in the send queue, and this sends of it. A sender that holds
  // back overrides it, calls this version first, and goes on once GetSendQueueLength() is small.
  void OnSend(wface::IAWTransport* transport, wface::CAWTransportParameter* parameter) override;

  // The transport stays until Disconnect or SetTransportHandle, what was received and queued until
  // Disconnect.
  void OnDisconnect(long reason, wface::IAWTransport* transport) override;

  // --- operations ---

  // Ends the connection like Disconnect(0). On the stream's thread, unless it has had no connection
  // or Disconnect has ended it; an end by the peer is not enough.
  ~CZARNTCPTransport() override;

  // Sends the chain's unread bytes, in order with all that was sent before, and advances its read
  // pointers over all of them; what the transport does not take at once waits in the send queue.
  // `parameter` (null for none) goes along to the transport. Never blocks. 0; 10001 without a
  // connection; else an error of the transport, and the chain is left as it was. When something was
  // waiting already the chain has been queued behind it even on such an error, so it must not be
  // sent again. No memory: 10001 and nothing sent; when part of it was on its way already, the
  // stream is closed.
  virtual keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data,
                                     wface::CAWTransportParameter* parameter);

  // --- upcalls, for the subclass ---

  // `data` is a duplicate of all bytes received and not consumed yet, from the start of a frame: a
  // chain that the handler may read as it likes. Handle one frame and return its length, or return
  // 0 when it is not complete. Called again as long as frames and bytes are left; what is left then
  // comes back with what arrives next. Returning more than there is is a violation: the connection
  // is ended and OnPeerDisconnect(0) follows. So it does when the handler disconnects the stream.
  virtual std::uint16_t HandleMessage(keelbase::CAWMessageBlock& data) = 0;

  // The connection has ended, and the stream is closed. Not called when Disconnect or
  // SetTransportHandle ended it, but for a Disconnect inside HandleMessage. The stream is not
  // touched after this call. `reason` is 0 when the peer closed, or its process died with nothing
  // unread (to tell the two apart, let the peer send a last message before it closes), and when
  // this side gave up in HandleMessage; 10001 for no memory; else what the platform said, an errno
  // value as a rule: see keelbase::DescribeResult.
  virtual void OnPeerDisconnect(long reason) = 0;

  // --- more operations ---

  // Takes over a connection, in place of one that there was (ended without upcall; the buffers are
  // kept). 0; 10001 for null (nothing changes), and when the transport cannot be opened because
  // somebody else has (it stays held until Disconnect).
  virtual keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<wface::IAWTransport>& transport);

  // Ends the connection and drops what was received. All that SendMsg has accepted still goes out,
  // as far as the peer takes it within the transport's linger time (2 seconds). No upcall follows.
  // `reason` has no effect. Always 0.
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

  // Bytes that SendMsg accepted and the transport has not taken yet. What was given to
  // CAWThread::Post and has not run is not among them.
  std::size_t GetSendQueueLength() const { return sendQueue_.GetLength(); }

  const CZARNStreamCounters& GetCounters() const { return counters_; }

 protected:
  // While more than `bytes` received bytes stand unconsumed nothing more is read from the peer,
  // whose end is still noticed, as far as TCP brings it: an orderly end waits in the peer's system
  // behind bytes that there is no room for here. 0, the default, is no limit. One below the length
  // of the longest frame blocks the connection for good.
  void SetReceiveLimit(std::size_t bytes);

 private:
  friend class detail::MetricsEntry;
  friend struct StreamSteps;
  static constexpr const char* kMetricsTransport = "tcp";

  keelbase::CAWAutoPtr<wface::IAWTransport> transport_;
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
