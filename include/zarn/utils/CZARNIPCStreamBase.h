// CZARNIPCStreamBase.h - base of every endpoint that exchanges framed messages over local IPC.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fipc/CAWIPCManager.h"
#include "fipc/CAWIPCTransport.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/CZARNStreamCounters.h"
#include "zarn/utils/detail/Generation.h"
#include "zarn/utils/detail/MetricsEntry.h"
#include "zarn/utils/detail/ReadGate.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"
#include "zarn/utils/detail/SendQueue.h"
#include "zarn/utils/detail/ThreadOwner.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// One connection at a time over local IPC: collects what arrives until the subclass recognises
// whole frames, and queues what the transport cannot take yet. It knows nothing of a frame's
// layout; HandleMessage decides. Most programs want a channel (CZARNLibClientChannel,
// CZARNLibServerChannel) instead, which brings a frame format along.
//
// States: idle (new), connecting, open, closed. Connect and SetTransportHandle lead out of idle and
// closed; a failed connect, the end of the connection and Close lead to closed, from where the
// stream may be used again.
//
// Threads: no locks. A stream belongs to the thread of its first Connect or SetTransportHandle,
// which must be the one that its transport calls back on: a platform thread (keelbase::CAWThread).
// Upcalls come there, and every operation is called there; from elsewhere use CAWThread::Call or
// Post. Debug builds of this library stop with a message that names both threads; a release build
// does not notice. Distinct streams are independent of each other.
//
// Ownership: the stream holds one reference on its transport and on its connector. Blocks given to
// SendMsg stay the caller's.
//
// Inside any upcall (HandleMessage, OnConnected, OnPeerDisconnect) the stream may be used, closed,
// connected anew or deleted. The bytes given to a handler stay valid until it returns, whatever it
// does, and once it has closed or replaced the connection nothing more is delivered from the old
// one. No upcall is made from inside Connect, SendMsg, SetTransportHandle or Close. When a handler
// or OnConnected lets std::bad_alloc pass, the connection ends: OnPeerDisconnect(ENOMEM).
//
// Limits: the send queue grows without bound while the peer does not read; watch
// GetSendQueueLength(). The receive buffer grows with the largest frame; see SetReceiveLimit.
class ZARNUTILS_API CZARNIPCStreamBase : public fipc::IAWIPCTransportSink,
                                         public fipc::IAWIPCAcceptorConnectorSink {
 public:
  CZARNIPCStreamBase();
  CZARNIPCStreamBase(const CZARNIPCStreamBase&) = delete;
  CZARNIPCStreamBase& operator=(const CZARNIPCStreamBase&) = delete;

  // --- the destructor; events of the transport, called by the platform, not by users ---

  // Bytes of a transport that is not the current one are ignored.
  void OnReceive(keelbase::CAWMessageBlock& data, fipc::IAWIPCTransport* transport,
                 fipc::CAWIPCTransportParameter* parameter) override;

  // There is room again for what waits in the send queue, and this sends of it. A sender that holds
  // back overrides it, calls this version first, and goes on once GetSendQueueLength() is small.
  void OnSend(fipc::IAWIPCTransport* transport, fipc::CAWIPCTransportParameter* parameter) override;

  void OnDisconnect(long reason, fipc::IAWIPCTransport* transport) override;

  // Ends a connect and a connection like Close(0), without upcall. On the stream's thread, unless
  // it is idle or closed.
  ~CZARNIPCStreamBase() override;

  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId* id) override;

  // --- operations ---

  // Starts to connect to the endpoint at `peer`; `local` (null for none) is the address that the
  // other side is told. Ends a connect or a connection that there was, without upcall. Never
  // blocks. 0: one OnConnected or OnPeerDisconnect follows. Else the platform's error, and none
  // follows.
  //
  // What waits in the send queue and in the receive buffer is kept, also when it is the rest of a
  // frame that was cut (inside HandleMessage: the send queue only). Call Close first unless the new
  // connection is meant to go on where the old one ended.
  virtual keelbase::AWResult Connect(const keelbase::CAWIPCAddr& peer, keelbase::CAWIPCAddr* local);

  // Sends the chain's unread bytes, in order with all that was sent before, and advances its read
  // pointers over all of them; what the transport does not take at once waits in the send queue.
  // Never blocks. 0; 10002 without a connection, also while connecting; else an error of the
  // transport, and the chain is left as it was. When something was waiting already the chain has
  // been queued behind it even on such an error, so it must not be sent again. No memory: 10001 and
  // nothing sent; when part of it was on its way already, the stream is closed.
  virtual keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data);

  // The same for plain bytes, through the virtual form above. Not copied unless they have to wait.
  virtual keelbase::AWResult SendMsg(const char* data, std::size_t len);

  // --- upcalls, for the subclass ---

  // `data` are all bytes received and not consumed yet, from the start of a frame; valid during the
  // call only. Handle one frame and return its length, or return 0 when it is not complete. Called
  // again as long as frames and bytes are left; what is left then comes back with what arrives
  // next. Returning more than `len` is a violation: the connection is ended and OnPeerDisconnect(0)
  // follows. So it does when the handler closes the stream.
  virtual std::size_t HandleMessage(const char* data, std::size_t len) = 0;

  // The connection has ended or a connect has failed, and the stream is closed. Not called when
  // Close, Connect or SetTransportHandle ended it, but for a Close inside HandleMessage. The stream
  // is not touched after this call. `reason` is 0 when the peer closed, or its process died with
  // nothing unread (to tell the two apart, let the peer send a last message before it closes), and
  // when this side gave up in HandleMessage; 10001 for no memory, or a new connection that could
  // not be taken; else what the platform said, an errno value as a rule (ECONNREFUSED, ENOENT,
  // ECONNRESET): see keelbase::DescribeResult.
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
      keelbase::CAWAutoPtr<fipc::IAWIPCTransport>& transport);

  // Ends a connect and a connection and drops what was received. All that SendMsg has accepted
  // still goes out, as far as the peer takes it within the transport's linger time (2 seconds). The
  // peer sees an orderly end. No upcall follows. `reason` has no effect. Always 0.
  virtual keelbase::AWResult Close(long reason);

  // For callers that come by received bytes on their own way: offers the unread bytes of the first
  // segment of `data`, and of no other, to the handler and advances over what it took; the rest
  // stays in the block. 0; 10001 when the stream was closed before, is now, or has another
  // connection. When it is closed, `data` is not advanced.
  keelbase::AWResult OnReceiveDirect(keelbase::CAWMessageBlock& data);

  // --- accessors ---

  // Only stored: nothing reads or enforces them. Bytes, 32768 by default. The two flags are
  // always false.
  void SetSendBufferSize(std::uint32_t size) { sendBufferSize_ = size; }
  void SetRcvBufferSize(std::uint32_t size) { receiveBufferSize_ = size; }
  bool IsSendOverBuffer() const { return sendOverBuffer_; }
  bool IsRcvOverBuffer() const { return receiveOverBuffer_; }

  bool IsClosed() { return closed_; }

  // Of the last connection that was attached; empty before. What a peer says of itself is a claim
  // (see fipc::IAWIPCTransport::GetOption).
  const keelbase::CAWIPCAddr& GetPeerAddr() const { return peerAddr_; }
  const keelbase::CAWIPCAddr& GetLocalAddr() const { return localAddr_; }

  // Bytes that SendMsg accepted and the transport has not taken yet. What was given to
  // CAWThread::Post and has not run is not among them.
  std::size_t GetSendQueueLength() const { return sendQueue_.GetLength(); }

  const CZARNStreamCounters& GetCounters() const { return counters_; }

 protected:
  // While more than `bytes` received bytes stand unconsumed nothing more is read from the peer,
  // whose end is still noticed. 0, the default, is no limit. One below the length of the longest
  // frame blocks the connection for good.
  void SetReceiveLimit(std::size_t bytes);

  // Reads nothing more on this connection, whose end is still noticed. For a handler that has found
  // a frame it cannot go on from.
  void StopReading();

  // StopReading, counted once for each connection.
  void StopAtMalformedFrame();

 private:
  friend class detail::MetricsEntry;
  friend struct StreamSteps;
  static constexpr const char* kMetricsTransport = "ipc";

  keelbase::CAWAutoPtr<fipc::IAWIPCTransport> transport_;
  keelbase::CAWAutoPtr<fipc::IAWIPCConnector> connector_;
  detail::SendQueue sendQueue_;
  detail::ReceiveAccumulator received_;
  // No code reads what is [[maybe_unused]]; debuggers show it.
  [[maybe_unused]] bool transportAttached_ = false;
  [[maybe_unused]] bool connectIssued_ = false;
  [[maybe_unused]] std::uint32_t sendBufferSize_ = 32768;
  [[maybe_unused]] std::uint32_t receiveBufferSize_ = 32768;
  keelbase::CAWIPCAddr peerAddr_;
  keelbase::CAWIPCAddr localAddr_;
  bool receiveOverBuffer_ = false;
  bool sendOverBuffer_ = false;
  bool closed_ = false;

  detail::ReadGate readGate_;
  detail::Generation generation_;
  detail::ThreadOwner thread_;
  CZARNStreamCounters counters_;
  detail::MetricsEntry metrics_;
};

}  // namespace zarn::utils
