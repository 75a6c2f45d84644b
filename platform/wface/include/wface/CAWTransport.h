// CAWTransport.h - a TCP connection: the transport and its sink.
#pragma once

#include <cstdint>

#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "wface/CAWDefines.h"

namespace wface {

class IAWTransport;

// Handed along with each send and receive event; TCP makes no use of its fields.
struct CAWTransportParameter {
  std::uint64_t reserved64 = 0;
  std::uint32_t reserved32 = 0;
};

// Receives the events of one transport, on the transport's thread and never from inside one of the
// transport's own operations. The sink must live until it has called Disconnect or got
// OnDisconnect; inside any callback it may drop the transport or delete itself.
class IAWTransportSink {
 public:
  // Bytes arrived. They may be kept by duplicating the block, which keeps the whole buffer that
  // they were read into, 128 KiB (8 KiB of them resident) for one byte: short pieces are better
  // copied. `parameter` may be null.
  virtual void OnReceive(keelbase::CAWMessageBlock& data, IAWTransport* transport,
                         CAWTransportParameter* parameter) = 0;
  // There is room again after SendData answered 10013.
  virtual void OnSend(IAWTransport* transport, CAWTransportParameter* parameter) = 0;
  // The connection has ended; nothing comes after this. 0: the peer closed, or its process died
  // with nothing unread (to tell the two apart, let the peer send a last message before it closes).
  // Else an errno value (ECONNRESET: it ended without reading all and had sent nothing or no more
  // time to linger, or its machine started anew; ETIMEDOUT: nothing was heard from it, see
  // AW_OPT_SILENCE_LIMIT) or an AWResult.
  virtual void OnDisconnect(long reason, IAWTransport* transport) = 0;
  virtual ~IAWTransportSink() = default;
};

// Set on a transport, std::uint32_t, milliseconds, 3000 to 86400000: how long the connection may
// show no life, whatever the cause, before it is ended with ETIMEDOUT. Default 30000. An idle
// connection asks the peer's system for a sign from a third of that time on, which costs one small
// packet each way every third of it (TCP_KEEPIDLE 10 s, TCP_KEEPINTVL 5 s, TCP_KEEPCNT 4); sent
// bytes that nobody acknowledges for that long end it too, and so does a peer that is alive but
// takes nothing of what waits for it all that time, or so little that its system does not open its
// window again (TCP_USER_TIMEOUT 30 s). Short limits end connections at each hiccup of a network,
// long ones keep the dead. 10001 for a value out of range.
inline constexpr int AW_OPT_SILENCE_LIMIT = 130;

// The range of AW_OPT_SILENCE_LIMIT, milliseconds: 3 seconds to a day.
inline constexpr std::uint32_t AW_SILENCE_LIMIT_MIN = 3000;
inline constexpr std::uint32_t AW_SILENCE_LIMIT_MAX = 86400000;

// One connection: a stream of bytes each way over TCP (IPv4), nothing added on the wire. Small
// sends are not held back by the system (TCP_NODELAY).
//
// Threads: all operations are called on the thread of the connector or acceptor that made it, but
// for AddReference and ReleaseReference, which any thread may call. Ownership: counted
// (CAWAutoPtr). It stays alive through its own callbacks. Letting go of the last reference is a
// Disconnect; a thread that has no loop waits for a callback that is just running.
class WFACE_API IAWTransport {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // Starts the events. 0, also on a connection that has died meanwhile (OnDisconnect follows);
  // 10001 for a null sink and for a second open. Bytes that came early wait for it.
  virtual keelbase::AWResult OpenWithSink(IAWTransportSink* sink) = 0;

  // Sends the chain's unread bytes and advances its read pointers over what was taken; never
  // blocks. 0: everything taken. 10013: part or nothing taken, one OnSend follows when there is
  // room. Anything else: an error (10001, 10002 after Disconnect, or an errno value), nothing
  // taken. EPIPE, which may also be the reason of OnDisconnect: the peer had closed, and has not
  // taken all that was sent to it. Small sends are gathered and written at the end of the loop's
  // turn. `parameter` may be null.
  virtual keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                                      CAWTransportParameter* parameter) = 0;

  // Detaches the sink at once; what SendData took is still written, see AW_OPT_LINGER. `reason` has
  // no effect. 0 always.
  virtual keelbase::AWResult Disconnect(long reason) = 0;

  // Codes of keelbase::CAWTransportOption, and AW_OPT_SILENCE_LIMIT; addresses are
  // keelbase::CAWInetAddr. 0; 10001 for an unknown code or a null pointer.
  virtual keelbase::AWResult GetOption(int code, void* value) = 0;
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;

 protected:
  virtual ~IAWTransport() = default;
};

}  // namespace wface
