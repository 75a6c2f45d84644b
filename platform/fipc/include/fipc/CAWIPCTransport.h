// CAWIPCTransport.h - a local IPC connection: the transport and its sink.
#pragma once

#include <cstdint>

#include "fipc/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"

namespace fipc {

class IAWIPCTransport;

// Handed along with each send and receive event; local IPC makes no use of its fields.
struct CAWIPCTransportParameter {
  std::uint64_t reserved64 = 0;
  std::uint32_t reserved32 = 0;
};

// Receives the events of one transport, on the transport's thread and never from inside one of the
// transport's own operations. The sink must live until it has called Disconnect or got
// OnDisconnect; inside any callback it may drop the transport or delete itself.
class IAWIPCTransportSink {
 public:
  // Bytes arrived. They may be kept by duplicating the block, which keeps the whole buffer that
  // they were read into, 128 KiB (8 KiB of them resident) for one byte: short pieces are better
  // copied. `parameter` may be null.
  virtual void OnReceive(keelbase::CAWMessageBlock& data, IAWIPCTransport* transport,
                         CAWIPCTransportParameter* parameter) = 0;
  // There is room again after SendData answered 10013.
  virtual void OnSend(IAWIPCTransport* transport, CAWIPCTransportParameter* parameter) = 0;
  // The connection has ended; nothing comes after this. 0: the peer closed, or its process died
  // with nothing unread (to tell the two apart, let the peer send a last message before it closes).
  // Else an errno value (ECONNRESET: it ended without reading all and had sent nothing or no more
  // time to linger) or an AWResult.
  virtual void OnDisconnect(long reason, IAWIPCTransport* transport) = 0;
  virtual ~IAWIPCTransportSink() = default;
};

// One connection: a stream of bytes each way over a Unix socket, nothing added on the wire.
//
// Threads: all operations are called on the thread of the connector or acceptor that made it, but
// for AddReference and ReleaseReference, which any thread may call. Ownership: counted
// (CAWAutoPtr). It stays alive through its own callbacks. Letting go of the last reference is a
// Disconnect; a thread that has no loop waits for a callback that is just running.
class FIPC_API IAWIPCTransport {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // Starts the events. 0, also on a connection that has died meanwhile (OnDisconnect follows);
  // 10001 for a null sink and for a second open. Bytes that came early wait for it.
  virtual keelbase::AWResult OpenWithSink(IAWIPCTransportSink* sink) = 0;

  // Sends the chain's unread bytes and advances its read pointers over what was taken; never
  // blocks. 0: everything taken. 10013: part or nothing taken, one OnSend follows when there is
  // room. Anything else: an error (10001, 10002 after Disconnect, or an errno value), nothing
  // taken. EPIPE, which may also be the reason of OnDisconnect: the peer had closed, and has not
  // taken all that was sent to it. Small sends are gathered and written at the end of the loop's
  // turn. `parameter` may be null.
  virtual keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                                      CAWIPCTransportParameter* parameter) = 0;

  // Detaches the sink at once; what SendData took is still written, see AW_OPT_LINGER. `reason` has
  // no effect. 0 always.
  virtual keelbase::AWResult Disconnect(long reason) = 0;

  // Codes of keelbase::CAWTransportOption; addresses are keelbase::CAWIPCAddr. 0; 10001 for an
  // unknown code or a null pointer. The peer address is the one that the peer claims, empty when it
  // claims none: a name, not an identity (for that, AW_OPT_PEER_CREDENTIALS).
  virtual keelbase::AWResult GetOption(int code, void* value) = 0;
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;

 protected:
  virtual ~IAWIPCTransport() = default;
};

}  // namespace fipc
