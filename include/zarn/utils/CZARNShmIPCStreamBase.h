// CZARNShmIPCStreamBase.h - base of every endpoint that exchanges framed messages over shared
// memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fshmipc/CAWShmIPCAddr.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
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

// One connection at a time over shared memory: collects what arrives until the subclass recognises
// whole frames, and queues what the transport cannot take yet. It knows nothing of a frame's
// layout; HandleMessage decides. Most programs want a channel (CShmZARNLibClientChannel,
// CShmZARNLibServerChannel) instead, which brings a frame format along. ZARNLibInit must have been
// called before the first connect.
//
// Like CZARNIPCStreamBase, whose rules for threads, ownership and use inside upcalls hold here too,
// but for these:
// - a failed connect is told by OnConnectFailure, not by OnPeerDisconnect;
// - a handler that closes the stream is answered by OnClose, not by OnPeerDisconnect;
// - a handler that claims more bytes than there are does not end the connection: they stay, and are
//   offered again with what arrives next;
// - SendMsg never advances the caller's block, and every failure of it is 10001;
// - when the peer ends the connection, what was received and queued is kept until Connect or Close.
//
// Limits: the send queue grows without bound while the peer does not read; watch
// GetSendQueueLength(). The receive buffer grows with the largest frame; see SetReceiveLimit.
class ZARNUTILS_API CZARNShmIPCStreamBase : public fshmipc::IAWShmIPCTransportSink,
                                            public fshmipc::IAWShmIPCAcceptorConnectorSink {
 public:
  CZARNShmIPCStreamBase();
  CZARNShmIPCStreamBase(const CZARNShmIPCStreamBase&) = delete;
  CZARNShmIPCStreamBase& operator=(const CZARNShmIPCStreamBase&) = delete;

  // --- the destructor; events of the transport, called by the platform, not by users ---

  // Takes the bytes of any transport.
  void OnReceive(keelbase::CAWMessageBlock& data, fshmipc::IAWShmIPCTransport* transport,
                 fshmipc::CAWShmIPCTransportParameter* parameter) override;

  // There is room again for what waits in the send queue, and this sends of it. A sender that holds
  // back overrides it, calls this version first, and goes on once GetSendQueueLength() is small.
  void OnSend(fshmipc::IAWShmIPCTransport* transport,
              fshmipc::CAWShmIPCTransportParameter* parameter) override;

  void OnDisconnect(long reason, fshmipc::IAWShmIPCTransport* transport) override;

  // Ends a connect and a connection like Close(0), without upcall. On the stream's thread, unless
  // it is idle or closed.
  ~CZARNShmIPCStreamBase() override;

  void OnShmIPCConnectIndication(long reason, fshmipc::IAWShmIPCTransport* transport,
                                 fshmipc::IAWShmIPCAcceptorConnectorId* id) override;

  // --- operations ---

  // Starts to connect to the endpoint `peer`; `local` (null for none) is the address that the other
  // side is told. Ends a connect or a connection that there was, without upcall, and drops what was
  // received and queued. Never blocks. 0: one OnConnected or OnConnectFailure follows. 10001: no
  // connector can be made, and none follows; else the platform's error.
  virtual keelbase::AWResult Connect(const fshmipc::CAWShmIPCAddr& peer,
                                     fshmipc::CAWShmIPCAddr* local);

  // Sends the chain's unread bytes, in order with all that was sent before; what the transport does
  // not take at once waits in the send queue. The chain stays as it is. Never blocks. 0; 10001
  // without a connection, also while connecting (nothing is kept then), and for every error of the
  // transport: then the bytes wait in the send queue and must not be sent again. No memory: 10001
  // and nothing sent; when part of it was on its way already, the stream is closed.
  virtual keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data);

  // The same for plain bytes, through the virtual form above. Not copied unless they have to wait.
  virtual keelbase::AWResult SendMsg(const char* data, std::size_t len);

  // --- upcalls, for the subclass ---

  // `data` are all bytes received and not consumed yet, from the start of a frame; valid during the
  // call only. Handle one frame and return its length, or return 0 when it is not complete. Called
  // again as long as frames and bytes are left; what is left then comes back with what arrives
  // next. The same when more than `len` is returned.
  virtual std::size_t HandleMessage(const char* data, std::size_t len) = 0;

  // The peer has ended the connection, or there was no memory to go on, and the stream is closed.
  // The stream is not touched after this call. `reason` is what the platform said: 0 for an orderly
  // end, ECONNRESET when the peer died, 10001 for no memory; see keelbase::DescribeResult.
  virtual void OnPeerDisconnect(long reason) = 0;

  // The connect has succeeded (reason is 0) and SendMsg works. The result is not used. Not called
  // for SetTransportHandle: its caller knows.
  virtual int OnConnected(long reason) = 0;

  // The handler has closed the stream, and the connection has been ended. The stream is not touched
  // after this call.
  virtual void OnClose() = 0;

  // A connect has failed, and the stream is closed. `reason` is what the platform said, an errno
  // value as a rule: ECONNREFUSED, ENOENT (nobody listens), EPROTONOSUPPORT (a peer of another
  // version), ENOMEM. The stream is not touched after this call.
  virtual void OnConnectFailure(long reason) = 0;

  // Never called by this class: for subclasses and owners that watch sizes.
  virtual void OnRcvBufferOverFlow(std::uint32_t size) = 0;

  // --- more operations ---

  // Takes over an accepted connection, in place of one that there was (ended without upcall; the
  // buffers are kept). 0; 10001 for null (nothing changes), and when the transport cannot be opened
  // because somebody else has (it stays held until Close).
  virtual keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<fshmipc::IAWShmIPCTransport>& transport);

  // Ends a connect and a connection and drops what was received. All that SendMsg has accepted
  // still goes out, as far as the peer takes it within the transport's linger time (2 seconds). The
  // peer sees an orderly end. No upcall follows. `reason` has no effect. Always 0.
  virtual keelbase::AWResult Close(long reason);

  // --- accessors ---

  // Only stored: nothing reads or enforces them. Bytes, 32768 by default; a larger receive buffer
  // size is stored as 32768.
  void SetSendBufferSize(std::uint32_t size) { sendBufferSize_ = size; }
  void SetRcvBufferSize(std::uint32_t size) {
    receiveBufferSize_ = size < kDefaultBufferSize ? size : kDefaultBufferSize;
  }

  bool IsClosed() { return closed_; }

  // Of the last connection that was attached; (0, 0) before. What a peer says of itself is a claim
  // (see fshmipc::IAWShmIPCTransport::GetPeerAddr).
  const fshmipc::CAWShmIPCAddr& GetPeerAddr() const { return peerAddr_; }
  const fshmipc::CAWShmIPCAddr& GetLocalAddr() const { return localAddr_; }

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
  static constexpr const char* kMetricsTransport = "shm";

  static constexpr std::uint32_t kDefaultBufferSize = 32768;

  keelbase::CAWAutoPtr<fshmipc::IAWShmIPCTransport> transport_;
  keelbase::CAWAutoPtr<fshmipc::IAWShmIPCConnector> connector_;
  detail::SendQueue sendQueue_;
  detail::ReceiveAccumulator received_;
  // No code reads what is [[maybe_unused]]; debuggers show it.
  [[maybe_unused]] bool transportAttached_ = false;
  [[maybe_unused]] bool connectIssued_ = false;
  [[maybe_unused]] std::uint32_t sendBufferSize_ = kDefaultBufferSize;
  [[maybe_unused]] std::uint32_t receiveBufferSize_ = kDefaultBufferSize;
  fshmipc::CAWShmIPCAddr peerAddr_;
  fshmipc::CAWShmIPCAddr localAddr_;
  [[maybe_unused]] const bool reserved_ = false;
  bool closed_ = false;

  detail::ReadGate readGate_{detail::ReadGate::kMemoryRead};
  detail::Generation generation_;
  detail::ThreadOwner thread_;
  CZARNStreamCounters counters_;
  detail::MetricsEntry metrics_;
};

}  // namespace zarn::utils
