// CZARNSSLTCPSessionBase.h - base of every endpoint that exchanges framed messages over TLS.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWString.h"
#include "sslutils/CAWSSLManager.h"
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

// CZARNTCPSessionBase inside TLS: its rules hold here too, also those that it takes from
// CZARNIPCStreamBase, but for these:
// - the session can show a certificate of its own;
// - a connect has no limit of 3 seconds: the system gives up in its own time when nobody answers,
//   and a handshake may take 10 seconds.
//
//   class Session : public zarn::utils::CZARNSSLTCPSessionBase { ... };
//   sslutils::IAWSSLManager::Instance()->SetTrustedCertificates("/etc/example/authority.pem");
//   session.PrivateKey("/etc/example/client.key");      // only for servers that ask for
//   session.Certificate("/etc/example/client.pem");     // a certificate
//   session.Connect(keelbase::CAWInetAddr("192.0.2.1", 7443), nullptr);
//
// The peer's certificate must be for its IP address. A subclass that wants a name instead, or less
// to be checked, overrides Connect, makes its own sslutils::IAWSSLConnector, and gives this session
// to AsyncConnect as the sink.
//
// Limits: the send queue grows without bound while the peer does not read; watch
// GetSendQueueLength(). The receive buffer grows with the largest frame; see SetReceiveLimit.
class ZARNUTILS_API CZARNSSLTCPSessionBase : public sslutils::IAWSSLTransportSink,
                                             public sslutils::IAWSSLConnectionSink {
 public:
  CZARNSSLTCPSessionBase();
  CZARNSSLTCPSessionBase(const CZARNSSLTCPSessionBase&) = delete;
  CZARNSSLTCPSessionBase& operator=(const CZARNSSLTCPSessionBase&) = delete;

  // --- the destructor; events of the transport, called by the platform, not by users ---

  // The block is left as it is.
  void OnSSLDataReceive(keelbase::CAWMessageBlock& data,
                        sslutils::IAWSSLTransport* transport) override;
  void OnSSLDisconnect(long reason, sslutils::IAWSSLTransport* transport) override;

  // There is room again for what waits in the send queue, and this sends of it. A sender that holds
  // back overrides it, calls this version first, and goes on once GetSendQueueLength() is small.
  void OnSSLDataSend(sslutils::IAWSSLTransport* transport) override;

  // Ends a connect and a connection like Close(0), without upcall. On the session's thread, unless
  // it is idle or closed.
  ~CZARNSSLTCPSessionBase() override;

  void OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) override;

  // --- operations ---

  // Starts to connect to `peer`, from `local` when that is not null (port 0: any). Ends a connect
  // or a connection that there was, without upcall. Never blocks. 0: one OnConnected or
  // OnPeerDisconnect follows. Else the platform's error, and none follows. A private key or a
  // certificate that is of no use is told as the reason of OnPeerDisconnect.
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
  // session is not touched after this call. `reason` is 0 when the peer closed in order and when
  // this side gave up in HandleMessage; 10001 for no memory, or a new connection that could not be
  // taken; else what the platform said: a reason of sslutils/CAWSSLError.h or an errno value, see
  // sslutils::DescribeSSLResult.
  virtual void OnPeerDisconnect(long reason) = 0;

  // The connect has succeeded (reason is 0) and SendMsg works. The result is not used. Not called
  // for SetTransportHandle: its caller knows.
  virtual int OnConnected(long reason) = 0;

  // Never called by this class: for subclasses and owners that watch sizes.
  virtual void OnRcvBufferOverFlow(std::uint32_t size) = 0;

  // --- more operations ---

  // What the next Connect shows a server that asks for a certificate; for the texts see
  // sslutils/CAWSSLManager.h. Copied. 0; 10001 without memory.
  keelbase::AWResult PrivateKey(const keelbase::CAWString& text);
  keelbase::AWResult Certificate(const keelbase::CAWString& text);

  // Takes over an accepted connection, in place of one that there was (ended without upcall; the
  // buffers are kept, see Connect). 0; 10001 for null (nothing changes), and when the transport
  // cannot be opened because somebody else has (it stays held until Close).
  virtual keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport);

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
  static constexpr const char* kMetricsTransport = "tls";

  static constexpr std::uint32_t kDefaultBufferSize = 32768;

  keelbase::CAWAutoPtr<sslutils::IAWSSLTransport> transport_;
  keelbase::CAWAutoPtr<sslutils::IAWSSLConnector> connector_;
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
  keelbase::CAWString privateKey_;
  keelbase::CAWString certificate_;

  detail::ReadGate readGate_;
  detail::Generation generation_;
  detail::ThreadOwner thread_;
  CZARNStreamCounters counters_;
  detail::MetricsEntry metrics_;
};

}  // namespace zarn::utils
