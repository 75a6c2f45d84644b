// CAWSSLTransport.h - a TLS connection: the transport and its sink.
#pragma once

#include <cstdint>

#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWString.h"
#include "keelbase/CAWTransport.h"
#include "sslutils/CAWDefines.h"
#include "sslutils/CAWSSLError.h"

namespace sslutils {

class IAWSSLTransport;

// Handed along with a send; TLS makes no use of its fields.
struct CAWSSLTransportParameter {
  std::uint64_t reserved64 = 0;
  std::uint32_t reserved32 = 0;
};

// Get, CAWSSLInfo: what was agreed on in the handshake.
inline constexpr int AW_OPT_SSL_INFO = 140;

struct CAWSSLInfo {
  keelbase::CAWString protocol;         // "TLSv1.3"
  keelbase::CAWString cipher;           // "TLS_AES_256_GCM_SHA384"
  bool resumed = false;                 // an earlier session goes on: no certificates were sent
  bool peerVerified = false;            // the peer has shown a certificate, and it was checked
  keelbase::CAWString peerSubject;      // "CN = client, O = example"; empty without certificate
  keelbase::CAWString peerCertificate;  // PEM
};

// Receives the events of one transport, on the transport's thread and never from inside one of the
// transport's own operations. The sink must live until it has called Disconnect or got
// OnSSLDisconnect; inside any callback it may drop the transport or delete itself.
class IAWSSLTransportSink {
 public:
  // Bytes arrived, decrypted and unchanged. They may be kept by duplicating the block, which keeps
  // the whole buffer that they were decrypted into, 128 KiB (8 KiB of them resident) for one byte:
  // short pieces are better copied.
  virtual void OnSSLDataReceive(keelbase::CAWMessageBlock& data, IAWSSLTransport* transport) = 0;
  // The connection has ended; nothing comes after this. 0: the peer has ended it in order, all that
  // it sent has been delivered. AW_SSL_ERROR_CUT, ECONNRESET and EPIPE: it was cut. Else another
  // reason of CAWSSLError.h.
  virtual void OnSSLDisconnect(long reason, IAWSSLTransport* transport) = 0;
  // There is room again after SendData answered 10013.
  virtual void OnSSLDataSend(IAWSSLTransport* transport) = 0;
  virtual ~IAWSSLTransportSink() = default;
};

// One connection: a stream of bytes each way inside TLS 1.2 or 1.3.
//
// Threads: all operations are called on the thread of the connector or acceptor that made it, but
// for AddReference and ReleaseReference, which any thread may call. Ownership: counted
// (CAWAutoPtr). It stays alive through its own callbacks. Letting go of the last reference is a
// Disconnect; a thread that has no loop waits for a callback that is just running. Limits: besides
// the buffers of the transport below up to 32 KiB wait to be sent (64 KiB for a peer that asks for
// new keys and reads no answers), and what one receive event below has brought (64 KiB) to be
// decrypted while nothing is read.
class SSLUTILS_API IAWSSLTransport {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // Starts the events. 0, also on a connection that has died meanwhile (OnSSLDisconnect follows);
  // 10001 for a null sink and for a second open. Bytes that came early wait for it.
  virtual keelbase::AWResult OpenWithSink(IAWSSLTransportSink* sink) = 0;

  // Sends the chain's unread bytes and advances its read pointers over what was taken; never
  // blocks. 0: everything taken. 10013: part or nothing taken, one OnSSLDataSend follows when there
  // is room. Anything else: an error (10001, 10002 after Disconnect, or a reason), nothing taken.
  // Small sends are gathered in records of 16 KiB and written at the end of the loop's turn.
  // `parameter` may be null.
  virtual keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                                      CAWSSLTransportParameter* parameter) = 0;

  // Detaches the sink at once. What SendData took is still written, then the peer is told that this
  // was all, and its end is awaited; all of it takes AW_OPT_LINGER at most. `reason` has no effect.
  // 0 always.
  virtual keelbase::AWResult Disconnect(long reason) = 0;

  // AW_OPT_SSL_INFO and the codes of keelbase::CAWTransportOption; addresses are those of the
  // transport below (keelbase::CAWInetAddr). Counters are those of what the user sends and
  // receives, but systemCallsSent, which counts records. Any other code is the transport's below,
  // and knows nothing of what is not encrypted yet: queuedBytes tells that. 0; 10001 for a null
  // pointer, for a code that is unknown below, too, and without memory.
  virtual keelbase::AWResult GetOption(int code, void* value) = 0;
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;

 protected:
  virtual ~IAWSSLTransport() = default;
};

}  // namespace sslutils
