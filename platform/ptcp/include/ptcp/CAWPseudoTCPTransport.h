// CAWPseudoTCPTransport.h - a pseudo-TCP connection: the transport and its sink.
#pragma once

#include <cstdint>

#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "ptcp/CAWDefines.h"

namespace ptcp {

class IAWPseudoTCPTransport;

// Handed along with each send and receive event; pseudo-TCP makes no use of its fields.
struct CAWPseudoTCPTransportParameter {
  std::uint64_t reserved64 = 0;
  std::uint32_t reserved32 = 0;
};

// Receives the events of one transport, on the transport's thread and never from inside one of the
// transport's own operations. The sink must live until it has called Disconnect or got
// OnDisconnect; inside any callback it may drop the transport or delete itself.
class IAWPseudoTCPTransportSink {
 public:
  // Bytes arrived. They may be kept by duplicating the block, which keeps the whole buffer that
  // they were read into, 128 KiB (8 KiB of them resident) for one byte: short pieces are better
  // copied. `parameter` may be null.
  virtual void OnReceive(keelbase::CAWMessageBlock& data, IAWPseudoTCPTransport* transport,
                         CAWPseudoTCPTransportParameter* parameter) = 0;
  // There is room again after SendData answered 10013.
  virtual void OnSend(IAWPseudoTCPTransport* transport,
                      CAWPseudoTCPTransportParameter* parameter) = 0;
  // The connection has ended; nothing comes after this. 0: the peer closed in order; else an errno
  // value (ECONNRESET: the peer gave up the connection, or its port is closed; ETIMEDOUT: it has
  // answered nothing for ten seconds; EPROTO: what it sent makes no sense) or an AWResult.
  virtual void OnDisconnect(long reason, IAWPseudoTCPTransport* transport) = 0;
  virtual ~IAWPseudoTCPTransportSink() = default;
};

// Set on a transport, std::uint32_t, bytes, at least 1: while fewer than these wait to be sent for
// the first time, SendData takes all of what it is given, however much that is. Default 4 MiB.
// Small bounds save memory, large ones keep a long and fast path busy between two OnSend.
inline constexpr int AW_OPT_SEND_QUEUE_LIMIT = 131;
// Got from a transport, std::uint64_t, bytes: what SendData took and the peer's system has not
// acknowledged. At 0 all has arrived there, so a Disconnect can lose nothing by its linger time.
inline constexpr int AW_OPT_UNACKNOWLEDGED = 132;

// One connection: a reliable, ordered stream of bytes each way over UDP (IPv4).
//
// What is sent is kept until the peer has acknowledged it and all before it; 8 MiB each way may be
// on the way or wait for a receiver that does not read. A peer that grants more and leaves out an
// acknowledgement makes a sender keep 16 MiB, then nothing new is sent until it comes. An idle
// connection asks for a sign of life every three seconds; a peer that answers nothing for ten is
// given up (ETIMEDOUT). Each packet bears a keyed tag that keeps out strangers and accidents. It
// does not keep out somebody who sees the packets, and nothing is encrypted: use TLS on top where
// that matters. The addresses of a connection are those it began with.
//
// Threads: all operations are called on the thread of the connector or acceptor that made it, but
// for AddReference and ReleaseReference, which any thread may call. Ownership: counted
// (CAWAutoPtr). It stays alive through its own callbacks. Letting go of the last reference is a
// Disconnect; a thread that has no loop waits for a callback that is just running.
class PTCP_API IAWPseudoTCPTransport {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // Starts the events. 0, also on a connection that has died meanwhile (OnDisconnect follows);
  // 10001 for a null sink and for a second open. Bytes that came early wait for it.
  virtual keelbase::AWResult OpenWithSink(IAWPseudoTCPTransportSink* sink) = 0;

  // Sends the chain's unread bytes and advances its read pointers over what was taken; never
  // blocks. 0: everything taken, which is the rule: below AW_OPT_SEND_QUEUE_LIMIT a send is taken
  // whole. 10013: nothing taken since the queue is full, one OnSend follows when there is room.
  // Anything else: an error (10001, 10002 after Disconnect, or an errno value), nothing taken.
  // Small sends are gathered and written at the end of the loop's turn. `parameter` may be null.
  virtual keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                                      CAWPseudoTCPTransportParameter* parameter) = 0;

  // Detaches the sink at once; what SendData took is still sent and its acknowledgement awaited,
  // see AW_OPT_LINGER. `reason` has no effect. 0 always.
  virtual keelbase::AWResult Disconnect(long reason) = 0;

  // Codes of keelbase::CAWTransportOption, and the two above; addresses are
  // keelbase::CAWInetAddr. Of the counters, bytesSent are those the peer has acknowledged,
  // queuedBytes those that were never sent yet, and systemCallsSent the writes of this connection's
  // packets. 0; 10001 for an unknown code, a null pointer or a value out of range.
  virtual keelbase::AWResult GetOption(int code, void* value) = 0;
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;

 protected:
  virtual ~IAWPseudoTCPTransport() = default;
};

}  // namespace ptcp
