// CZARNTCPSessionBase.h - base of every endpoint that exchanges framed messages over TCP.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWString.h"
#include "wface/CAWConnectionManager.h"
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

// One connection at a time over TCP (IPv4): collects what arrives until the subclass recognises
// whole frames, and queues what the transport cannot take yet. It knows nothing of a frame's
// layout; HandleMessage decides.
//
//   class Session : public zarn::utils::CZARNTCPSessionBase {
//     std::size_t HandleMessage(const char* data, std::size_t len) override {
//       const void* end = std::memchr(data, '\n', len);  // frames are lines
//       return end == nullptr ? 0 : static_cast<const char*>(end) - data + 1;
//     }
//     int OnConnected(long) override { return SendMsg("hello\n", 6) == 0 ? 0 : -1; }
//     void OnPeerDisconnect(long reason) override { /* connect again, or give up */ }
//     void OnRcvBufferOverFlow(std::uint32_t) override {}
//   };
//   session.Connect(keelbase::CAWInetAddr("127.0.0.1", 7000), nullptr);
//
// Like CZARNIPCStreamBase, whose rules for states, threads, ownership and use inside upcalls hold
// here too, but for these:
// - bytes are taken from any transport that delivers them, also from one that is not the current
//   one any more;
// - a handler that claims more bytes than there are does not end the connection: they stay, and are
//   offered again with what arrives next (OnReceiveDirect does end it);
// - when the peer ends the connection, what was received and queued is kept until Close;
// - a connect ends after 3 seconds.
//
// Limits: the send queue grows without bound while the peer does not read; watch
// GetSendQueueLength(). The receive buffer grows with the largest frame; see SetReceiveLimit. A
// peer that has vanished without a word is noticed after about half a minute, see
// wface::AW_OPT_SILENCE_LIMIT.
class ZARNUTILS_API CZARNTCPSessionBase : public wface::IAWTransportSink,
                                          public wface::IAWAcceptorConnectorSink {
 public:
  CZARNTCPSessionBase();
  CZARNTCPSessionBase(const CZARNTCPSessionBase&) = delete;
  CZARNTCPSessionBase& operator=(const CZARNTCPSessionBase&) = delete;

  // --- the destructor; events of the transport, called by the platform, not by users ---

  // The block is left as it is.
  void OnReceive(keelbase::CAWMessageBlock& data, wface::IAWTransport* transport,
                 wface::CAWTransportParameter* parameter) override;

  // There is room again for what waits in the send queue, and this sends of it. A sender that holds
  // back overrides it, calls this version first, and goes on once GetSendQueueLength() is small.
  void OnSend(wface::IAWTransport* transport, wface::CAWTransportParameter* parameter) override;

  void OnDisconnect(long reason, wface::IAWTransport* transport) override;

  // Ends a connect and a connection like Close(0), without upcall. On the session's thread, unless
  // it is idle or closed.
  ~CZARNTCPSessionBase() override;

  void OnConnectIndication(long reason, wface::IAWTransport* transport,
                           wface::IAWAcceptorConnectorId* id) override;

  // --- operations ---

  // Starts to connect to `peer`, from `local` when that is not null (port 0: any). Ends a connect
  // or a connection that there was, without upcall. Never blocks. 0: one OnConnected or
  // OnPeerDisconnect follows, within 3 seconds. Else the platform's error, and none follows.
  //
  // What waits in the send queue and in the receive buffer is kept, also when it is the rest of a
  // frame that was cut (inside HandleMessage: the send queue only). Call Close first unless the new
  // connection is meant to go on where the old one ended.
  virtual keelbase::AWResult Connect(const keelbase::CAWInetAddr& peer,
                                     keelbase::CAWInetAddr* local);

  // Sends the chain's unread bytes, in order with all that was sent before, and advances its read
  // pointers over all of them; what the transport does not take at once waits in the send queue.
  // Never blocks. 0; 10002 without a connection, also while connecting; else an error of the
  // transport, and the chain is left as it was. When something was waiting already the chain has
  // been queued behind it even on such an error, so it must not be sent again. No memory: 10001 and
  // nothing sent; when part of it was on its way already, the session is closed.
  virtual keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data);

  // The same for plain bytes, through the virtual form above. Not copied unless they have to wait.
  virtual keelbase::AWResult SendMsg(const char* data, std::size_t len);

  // --- upcalls, for the subclass ---

  // `data` are all bytes received and not consumed yet, from the start of a frame; valid during the
  // call only. Handle one frame and return its length, or return 0 when it is not complete. Called
  // again as long as frames and bytes are left; what is left then comes back with what arrives
  // next. The same when more than `len` is returned. A handler that closes the session is answered
  // by OnPeerDisconnect(0).
  virtual std::size_t HandleMessage(const char* data, std::size_t len) = 0;

  // The connection has ended or a connect has failed, and the session is closed. Not called when
  // Close, Connect or SetTransportHandle ended it, but for a Close inside HandleMessage. The
  // session is not touched after this call. `reason` is 0 when the peer closed, or its process died
  // with nothing unread (to tell the two apart, let the peer send a last message before it closes),
  // and when this side gave up in HandleMessage; 10001 for no memory, or a new connection that
  // could not be taken; else what the platform said, an errno value as a rule (ECONNREFUSED,
  // ETIMEDOUT, ECONNRESET): see keelbase::DescribeResult.
  virtual void OnPeerDisconnect(long reason) = 0;

  // The connect has succeeded (reason is 0) and SendMsg works. The result is not used. Not called
  // for SetTransportHandle: its caller knows.
  virtual int OnConnected(long reason) = 0;

  // Never called by this class: for subclasses and owners that watch sizes.
  virtual void OnRcvBufferOverFlow(std::uint32_t size) = 0;

  // --- more operations ---

  // Takes over an accepted connection, in place of one that there was (ended without upcall; the
  // buffers are kept, see Connect). 0; 10001 for null (nothing changes), and when the transport
  // cannot be opened because somebody else has (it stays held until Close).
  virtual keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<wface::IAWTransport>& transport);

  // Ends a connect and a connection and drops what was received. All that SendMsg has accepted
  // still goes out, as far as the peer takes it within the transport's linger time (2 seconds). The
  // peer sees an orderly end. No upcall follows. `reason` has no effect. Always 0.
  virtual keelbase::AWResult Close(long reason);

  // For callers that come by received bytes on their own way: offers the unread bytes of the first
  // segment of `data`, and of no other, to the handler and advances over what it took; the rest
  // stays in the block. 0; 10001 when the session was closed before, is now (a handler that claims
  // too much closes it here), or has another connection. When it is closed, `data` is not advanced.
  keelbase::AWResult OnReceiveDirect(keelbase::CAWMessageBlock& data);

  // --- accessors ---

  // Only stored: nothing reads or enforces them. Bytes, 32768 by default; a larger receive buffer
  // size is stored as 32768.
  void SetSendBufferSize(std::uint32_t size) { sendBufferSize_ = size; }
  void SetRcvBufferSize(std::uint32_t size) {
    receiveBufferSize_ = size < kDefaultBufferSize ? size : kDefaultBufferSize;
  }

  bool IsClose() { return closed_; }

  // Of the last connection that was attached; 0.0.0.0:0 before. The pointers are good as long as
  // the session.
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

  // Reads nothing more on this connection, whose end is noticed as said above. For a handler that
  // has found a frame it cannot go on from; Close is the better answer unless the peer may still
  // want what is on its way to it.
  void StopReading();

  // StopReading, counted once for each connection.
  void StopAtMalformedFrame();

 private:
  friend class detail::MetricsEntry;
  friend struct StreamSteps;
  static constexpr const char* kMetricsTransport = "tcp";

  static constexpr std::uint32_t kDefaultBufferSize = 32768;

  keelbase::CAWAutoPtr<wface::IAWTransport> transport_;
  keelbase::CAWAutoPtr<wface::IAWConnector> connector_;
  detail::SendQueue sendQueue_;
  detail::ReceiveAccumulator received_;
  // No code reads what is [[maybe_unused]]; debuggers show it.
  [[maybe_unused]] bool transportAttached_ = false;
  [[maybe_unused]] bool connectIssued_ = false;
  [[maybe_unused]] std::uint32_t sendBufferSize_ = kDefaultBufferSize;
  [[maybe_unused]] std::uint32_t receiveBufferSize_ = kDefaultBufferSize;
  keelbase::CAWInetAddr peerAddr_;
  keelbase::CAWInetAddr localAddr_;
  [[maybe_unused]] const bool reserved_ = false;
  bool closed_ = false;

  detail::ReadGate readGate_;
  detail::Generation generation_;
  detail::ThreadOwner thread_;
  CZARNStreamCounters counters_;
  detail::MetricsEntry metrics_;
};

}  // namespace zarn::utils
