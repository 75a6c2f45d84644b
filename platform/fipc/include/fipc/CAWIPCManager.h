// CAWIPCManager.h - connectors and acceptors of local IPC, and the manager that makes them.
//
// Endpoints are Unix sockets in the file system, mode 0600, in a directory that nobody else may
// write to.
#pragma once

#include <cstdint>

#include "fipc/CAWDefines.h"
#include "fipc/CAWIPCTransport.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWIPCAddr.h"

namespace fipc {

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
class FIPC_API IAWIPCAcceptorConnectorId {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // Set AW_OPT_ALLOW_ANY_USER (bool): also peers of other users than our own and root. Default:
  // refused. To be set before AsyncConnect or StartListen. 0, or 10001 for an unknown code or a
  // null pointer.
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;

 protected:
  virtual ~IAWIPCAcceptorConnectorId() = default;
};

inline constexpr int AW_OPT_ALLOW_ANY_USER = 120;

class IAWIPCAcceptorConnectorSink {
 public:
  // A connect has ended or a connection was accepted. reason 0: `transport` is the connection; a
  // sink that wants it takes a reference, else it is closed after this call. Otherwise transport is
  // null and reason an errno value (ECONNREFUSED, ENOENT: nobody listens; EACCES: a peer of another
  // user; EINVAL: no path of an endpoint; EMFILE: no descriptors) or an AWResult. An acceptor
  // reports a reason when listening had to wait for another process and then failed, EWOULDBLOCK
  // when that one has kept the directory locked for 10 seconds; it has stopped by then.
  virtual void OnIPCConnectIndication(long reason, IAWIPCTransport* transport,
                                      IAWIPCAcceptorConnectorId* id) = 0;
  virtual ~IAWIPCAcceptorConnectorSink() = default;
};

class FIPC_API IAWIPCConnector : public IAWIPCAcceptorConnectorId {
 public:
  // Connects to the endpoint at `peer`; `local` (null for none) is the address that the other side
  // is told. Both are copied. Never blocks on the peer, never calls back from inside; exactly one
  // indication follows unless cancelled. 0; 10001 for a null sink, while a connect is under way, or
  // without memory. `parameter` is 0.
  virtual keelbase::AWResult AsyncConnect(IAWIPCAcceptorConnectorSink* sink,
                                          const keelbase::CAWIPCAddr& peer, std::uint32_t parameter,
                                          const keelbase::CAWIPCAddr* local) = 0;

  // No indication comes after this. Does nothing when there was one already; never touches a
  // transport. Always 0.
  virtual keelbase::AWResult CancelConnect() = 0;
};

class FIPC_API IAWIPCAcceptor : public IAWIPCAcceptorConnectorId {
 public:
  // Listens at `addr`. A socket file of our own that nobody serves any more is replaced; anything
  // else that is there is left alone. 0: listening, or waiting for another process that is just
  // setting up an endpoint in that directory (a failure is then indicated). Else an errno value:
  // EADDRINUSE (somebody listens there, or a foreign file is in the way), EPERM (others may write
  // to the directory), EINVAL (the path names no file, or has a NUL byte), ENOENT, ENOTDIR,
  // ENAMETOOLONG, EMFILE …; 10001 for a null sink or while listening. Keeps two descriptors while
  // it listens, of the socket and of the directory.
  virtual keelbase::AWResult StartListen(IAWIPCAcceptorConnectorSink* sink,
                                         const keelbase::CAWIPCAddr& addr) = 0;

  // Stops and removes the endpoint file, if it is still this acceptor's, also when the path was
  // relative and the working directory is another one now. Accepted connections go on. Always 0.
  virtual keelbase::AWResult StopListen() = 0;
};

// The kind of CAWIPCManager: Unix stream sockets.
inline constexpr int AW_KIND_UNIX = 1;

// Makes connectors and acceptors. One for the process; any thread.
class FIPC_API CAWIPCManager {
 public:
  static CAWIPCManager* Instance();

  // `kind` is AW_KIND_UNIX; any other is refused with 10001. On failure out is null.
  virtual keelbase::AWResult CreateConnector(int kind,
                                             keelbase::CAWAutoPtr<IAWIPCConnector>& out) = 0;
  virtual keelbase::AWResult CreateAcceptor(int kind,
                                            keelbase::CAWAutoPtr<IAWIPCAcceptor>& out) = 0;

  // Puts another manager in place, not owned; null restores the real one.
  static void TEST_SetInstance(CAWIPCManager* manager);

 protected:
  virtual ~CAWIPCManager() = default;
};

}  // namespace fipc
