// CAWShmIPCTransport.h - a shared-memory connection: the transport and its sink.
#pragma once

#include <cstdint>

#include "fshmipc/CAWDefines.h"
#include "fshmipc/CAWShmIPCAddr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"

namespace fshmipc {

class IAWShmIPCTransport;

// Handed along with each send and receive event; shared memory makes no use of its fields.
struct CAWShmIPCTransportParameter {
  std::uint64_t reserved64 = 0;
  std::uint32_t reserved32 = 0;
};

// Receives the events of one transport, on the transport's thread and never from inside one of the
// transport's own operations. The sink must live until it has called Disconnect or got
// OnDisconnect; inside any callback it may drop the transport or delete itself.
class IAWShmIPCTransportSink {
 public:
  // Bytes arrived, copied out of the shared memory: the peer cannot change them any more. They may
  // be kept by duplicating the block, which keeps the whole buffer that they were copied into,
  // 128 KiB (8 KiB of them resident) for one byte: short pieces are better copied. `parameter` may
  // be null.
  virtual void OnReceive(keelbase::CAWMessageBlock& data, IAWShmIPCTransport* transport,
                         CAWShmIPCTransportParameter* parameter) = 0;
  // There is room again after SendData answered 10013.
  virtual void OnSend(IAWShmIPCTransport* transport, CAWShmIPCTransportParameter* parameter) = 0;
  // The connection has ended; nothing comes after this. 0: the peer closed in order; ECONNRESET: it
  // went without a word (killed, crashed); EPROTO: what it left in the shared memory made no sense;
  // else another errno value or an AWResult.
  virtual void OnDisconnect(long reason, IAWShmIPCTransport* transport) = 0;
  virtual ~IAWShmIPCTransportSink() = default;
};

// One connection: a stream of bytes each way through a ring in memory that both processes map. No
// system call is made while the other side is awake; one that sleeps is woken by a byte on a
// socket.
//
// Threads: all operations are called on the thread of the connector or acceptor that made it, but
// for AddReference and ReleaseReference, which any thread may call. Ownership: counted
// (CAWAutoPtr). It stays alive through its own callbacks. Letting go of the last reference is a
// Disconnect; a thread that has no loop waits for a callback that is just running.
class FSHMIPC_API IAWShmIPCTransport {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // Starts the events. 0, also on a connection that has died meanwhile (OnDisconnect follows);
  // 10001 for a null sink and for a second open. Bytes that came early wait for it.
  virtual keelbase::AWResult OpenWithSink(IAWShmIPCTransportSink* sink) = 0;

  // Copies the chain's unread bytes into the ring and advances its read pointers over what was
  // taken; never blocks. 0: everything taken. 10013: part or nothing taken because the ring is
  // full, one OnSend follows when half of it is free. Anything else: an error (10001 after the end,
  // 10002 after Disconnect), nothing taken. The peer is told at once of the first bytes of the
  // loop's turn, then when 16 KiB are together, and at the turn's end. `parameter` may be null.
  virtual keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                                      CAWShmIPCTransportParameter* parameter) = 0;

  // Detaches the sink at once; what SendData took stays readable for the peer. `reason` has no
  // effect. 0 always.
  virtual keelbase::AWResult Disconnect(long reason) = 0;

  // The pair that the peer claims as its own; on a connector's transport the one that was
  // connected to. (0, 0) when it claims none. A name, not an identity (for that,
  // AW_OPT_PEER_CREDENTIALS).
  virtual CAWShmIPCAddr GetPeerAddr() const = 0;
  virtual CAWShmIPCAddr GetLocalAddr() const = 0;

  // Codes of keelbase::CAWTransportOption without the addresses. AW_OPT_LINGER: how long Disconnect
  // waits for room for AW_OPT_LINGER_DATA. 0; 10001 for an unknown code or a null pointer.
  virtual keelbase::AWResult GetOption(int code, void* value) = 0;
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;

 protected:
  virtual ~IAWShmIPCTransport() = default;
};

}  // namespace fshmipc
