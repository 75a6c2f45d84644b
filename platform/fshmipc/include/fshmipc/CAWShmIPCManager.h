// CAWShmIPCManager.h - connectors and acceptors of shared-memory IPC, and the manager that makes
// them.
//
// An endpoint is a pair of 16-bit numbers. The two sides meet at a Unix socket called
// "<first>_<second>" in the directory "/zarn/shmipc/" below the system directory, mode 0600.
#pragma once

#include <cstdint>

#include "fshmipc/CAWDefines.h"
#include "fshmipc/CAWShmIPCAddr.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"

namespace fshmipc {

// Set, bool: also peers of other users than our own and root. Default: refused.
inline constexpr int AW_OPT_ALLOW_ANY_USER = 120;

// Set on a connector, std::uint32_t, bytes: the ring in each direction, a power of two from 64 KiB
// to 256 MiB. Default 2 MiB. The memory is reserved when a connection is made.
inline constexpr int AW_OPT_RING_SIZE = 121;

// What connectors and acceptors have in common: the count, and an identity for the sink to compare.
//
// Threads: used on the thread that made it when that is a platform thread, else from one thread at
// a time; callbacks come on that platform thread, else on the network thread. References may be
// dropped on any thread. Releasing the last reference cancels or stops. On the thread of the
// callbacks, and on a thread without a loop, no indication begins after it, and the latter waits
// for one that is just running, and for nothing else. Another thread with a loop does not wait,
// since the callback may be waiting for it: there one may still begin or end a moment later; to be
// sure, let go in a Call on the thread of the callbacks. An acceptor that is released on another
// thread than that of its callbacks gives its endpoint up a moment later; StopListen waits for
// that.
class FSHMIPC_API IAWShmIPCAcceptorConnectorId {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // To be set before AsyncConnect or StartListen. 0; 10001 for an unknown code, a value out of
  // range or a null pointer.
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;

 protected:
  virtual ~IAWShmIPCAcceptorConnectorId() = default;
};

class IAWShmIPCAcceptorConnectorSink {
 public:
  // A connect has ended or a connection was accepted. reason 0: `transport` is the connection; a
  // sink that wants it takes a reference, else it is closed after this call. Otherwise transport is
  // null and reason an errno value (ECONNREFUSED, ENOENT: nobody listens; EACCES: a peer of another
  // user; ENOSPC, ENOMEM: no room for the rings; EPROTONOSUPPORT: the peer's memory layout is of
  // another version; EPROTO: what listens there is no acceptor of ours; ETIMEDOUT: it does not
  // answer; EMFILE: no descriptors; EFBIG: the limit of file sizes is below the rings) or an
  // AWResult (10001: no system directory). An acceptor reports a reason when listening had to wait
  // for another process and then failed, EWOULDBLOCK when that one has kept the directory locked
  // for 10 seconds; it has stopped by then.
  virtual void OnShmIPCConnectIndication(long reason, IAWShmIPCTransport* transport,
                                         IAWShmIPCAcceptorConnectorId* id) = 0;
  virtual ~IAWShmIPCAcceptorConnectorSink() = default;
};

class FSHMIPC_API IAWShmIPCConnector : public IAWShmIPCAcceptorConnectorId {
 public:
  // Connects to the endpoint `peer`; `local` (null for none) is the address that the other side is
  // told. Both are copied. Never blocks on the peer, never calls back from inside; exactly one
  // indication follows unless cancelled. 0; 10001 for a null sink, while a connect is under way, or
  // without memory. `parameter` is 0.
  virtual keelbase::AWResult AsyncConnect(IAWShmIPCAcceptorConnectorSink* sink,
                                          const CAWShmIPCAddr& peer, std::uint32_t parameter,
                                          const CAWShmIPCAddr* local) = 0;

  // No indication comes after this. Does nothing when there was one already; never touches a
  // transport. Always 0.
  virtual keelbase::AWResult CancelConnect() = 0;
};

class FSHMIPC_API IAWShmIPCAcceptor : public IAWShmIPCAcceptorConnectorId {
 public:
  // Listens at the endpoint `addr`; makes the directories. A socket file of our own that nobody
  // serves any more is replaced; anything else that is there is left alone. 0: listening, or
  // waiting for another process that is just setting up an endpoint (a failure is then indicated).
  // Else an errno value: EADDRINUSE (somebody listens there, or a foreign file is in the way),
  // EPERM (others may write to the directory), ENOENT, EMFILE ...; 10001 for a null sink, while
  // listening and without a system directory. Keeps two descriptors while it listens, of the socket
  // and of the directory.
  virtual keelbase::AWResult StartListen(IAWShmIPCAcceptorConnectorSink* sink,
                                         const CAWShmIPCAddr& addr) = 0;

  // Stops and removes the endpoint file, if it is still this acceptor's. Accepted connections go
  // on. Always 0.
  virtual keelbase::AWResult StopListen() = 0;
};

// Makes connectors and acceptors. One for the process; any thread.
class FSHMIPC_API CAWShmIPCManager {
 public:
  static CAWShmIPCManager* Instance();

  // The system directory below which endpoints meet. Counts for what connects or listens from then
  // on; without it nothing can.
  virtual void SetSystemPath(const keelbase::CAWString& directory) = 0;

  // The manager's result; on failure out is null.
  virtual keelbase::AWResult CreateConnector(keelbase::CAWAutoPtr<IAWShmIPCConnector>& out) = 0;
  virtual keelbase::AWResult CreateAcceptor(keelbase::CAWAutoPtr<IAWShmIPCAcceptor>& out) = 0;

  // Puts another manager in place, not owned; null restores the real one.
  static void TEST_SetInstance(CAWShmIPCManager* manager);

 protected:
  virtual ~CAWShmIPCManager() = default;
};

}  // namespace fshmipc
